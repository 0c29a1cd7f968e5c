#include "served_place.h"

#include "catalog/backup_set.h"
#include "catalog/catalog_operator.h"
#include "remote/remote_storage.h"
#include "rpc/json_restful_client.h"
#include "storage/host_manager.h"
#include "storage/pool.h"
#include "support/clocks.h"
#include "support/log_capture.h"
#include "support/relay.h"
#include "support/waiting.h"
#include "unit/storage/storage_fixture.h"

#include <gtest/gtest.h>

#include <cstring>
#include <thread>
#include <unistd.h>

using namespace kestrel;
using namespace kestrel_test;

namespace
{
const unsigned PIECE = 64 * 1024;

/// A host that reaches its server through a relay, with everything as register_upstream() sets it up.
class Bad_Network : public testing::Test
{
protected:
  Bad_Network()
  {
    place_.listen();
    pool_ = place_.add_pool("main");
    relay_ = std::make_unique<Relay>(place_.port());
    Upstream_Options options = place_.upstream_options();
    options.url = relay_->url();
    options.transfer_seconds = 3;
    std::string error;
    EXPECT_TRUE(register_upstream(options, error)) << error;
  }

  ~Bad_Network() override { unregister_upstream(); }

  Client_IO_Base::Options options()
  {
    Pool_Info pool;
    EXPECT_TRUE(get_pool_info(pool_.pool_id, "", pool, false, 0, nullptr, true, nullptr, nullptr, false));
    Client_IO_Base::Options made;
    EXPECT_TRUE(set_options_by_pool(made, pool));
    made.resumption_buffer_size = PIECE;
    made.max_seconds_retry = 600;
    return made;
  }

  bool store(const std::string& name, const std::string& content, std::string& error)
  {
    const Client_IO_Base::Options made = options();
    Client_IO_Ex client;
    const bool good = client.connect(made.storage_path + "/source", made) && client.open(name, 2, 0, 0) &&
                      client.write(content.data(), static_cast<unsigned>(content.size())) && client.close();
    error = client.error();
    return good;
  }

  std::string fetch(const std::string& name, std::string& error)
  {
    const Client_IO_Base::Options made = options();
    Client_IO_Ex client;
    std::string content(16u << 20, '\0');
    int count = -1;
    if (client.connect(made.storage_path + "/source", made) && client.open(name, 1, 0, 0))
      count = client.read(&content[0], 16u << 20);
    error = client.error();
    content.resize(static_cast<size_t>(std::max(count, 0)));
    return content;
  }

  std::string stored(const std::string& name) { return read_file(pool_.storage_path + "/source/" + name); }

  static Oscar_Brcmd_Backup_Set make_set(const std::string& id)
  {
    Oscar_Brcmd_Backup_Set set;
    set.set_uuid(id);
    set.set_backup_id(id);
    set.set_resource_uuid("resource-1");
    set.set_type("full");
    return set;
  }

  Log_Capture log_;
  Scaled_Clock clock_{20};
  Served_Place place_;
  Pool_Info pool_;
  std::unique_ptr<Relay> relay_;
};

TEST_F(Bad_Network, that_is_good_moves_everything)
{
  std::string error;
  const std::string content = test_content(5000000);
  ASSERT_TRUE(store("f", content, error)) << error;
  EXPECT_TRUE(content == stored("f"));
  EXPECT_TRUE(content == fetch("f", error)) << error;
}

TEST_F(Bad_Network, that_cuts_uploads_anywhere_leaves_them_whole)
{
  const std::string content = test_content(4 * PIECE + 5);
  unsigned cuts = 0;
  for (uint64_t at = 100; at < 5 * PIECE; at += 17001) {
    SCOPED_TRACE(at);
    std::string error;
    relay_->cut_after(at);
    ASSERT_TRUE(store("f", content, error)) << error;
    ASSERT_TRUE(content == stored("f"));
    cuts = relay_->cuts();
  }
  EXPECT_LE(10u, cuts);
}

TEST_F(Bad_Network, that_cuts_answers_anywhere_leaves_files_whole)
{
  const std::string content = test_content(2 * PIECE);
  for (uint64_t at = 1; at < 6000; at += 331) {
    SCOPED_TRACE(at);
    std::string error;
    relay_->cut_after_answer(at);
    ASSERT_TRUE(store("f", content, error)) << error;
    ASSERT_TRUE(content == stored("f"));
  }
}

TEST_F(Bad_Network, that_cuts_downloads_anywhere_gives_whole_files)
{
  const std::string content = test_content(5000000);
  std::string error;
  ASSERT_TRUE(store("f", content, error)) << error;
  for (uint64_t at = 1000; at < 5000000; at += 654321) {
    SCOPED_TRACE(at);
    relay_->cut_after_answer(at);
    ASSERT_TRUE(content == fetch("f", error)) << error;
  }
}

TEST_F(Bad_Network, that_goes_silent_is_noticed)
{
  const std::string content = test_content(40 * PIECE);
  for (const bool down : {false, true}) {
    SCOPED_TRACE(down);
    std::string error;
    bool good = false;
    const uint64_t before = relay_->bytes_up();
    std::thread job([&] { good = store("f", content, error); });
    EXPECT_TRUE(eventually([&] { return relay_->bytes_up() > before + 2 * PIECE; }));
    relay_->swallow(!down, down);
    const unsigned connections = relay_->connections();
    EXPECT_TRUE(eventually([&] { return good || relay_->connections() > connections; }));
    relay_->swallow(false, false);
    job.join();
    ASSERT_TRUE(good) << error;
    EXPECT_TRUE(content == stored("f"));
  }
}

TEST_F(Bad_Network, that_is_slow_moves_everything)
{
  relay_->delay_msec(2);
  std::string error;
  const std::string content = test_content(4 * PIECE);
  ASSERT_TRUE(store("f", content, error)) << error;
  EXPECT_TRUE(content == fetch("f", error)) << error;
}

TEST_F(Bad_Network, with_a_server_that_restarts_moves_everything)
{
  const std::string content = test_content(60 * PIECE);
  std::string error;
  for (int i = 0; i < 3; ++i) {
    bool good = false;
    const uint64_t before = relay_->bytes_up();
    std::thread job([&] { good = store("f", content, error); });
    EXPECT_TRUE(eventually([&] { return relay_->bytes_up() > before + 10 * PIECE; }));
    place_.restart();
    job.join();
    ASSERT_TRUE(good) << error;
    EXPECT_TRUE(content == stored("f"));
  }
}

TEST_F(Bad_Network, commits_each_set_once)
{
  for (int i = 0; i < 40; ++i) {
    SCOPED_TRACE(i);
    if (i % 2 == 0)
      relay_->cut_after(static_cast<uint64_t>(i) * 60);
    else
      relay_->cut_after_answer(static_cast<uint64_t>(i) * 10);
    if (i % 10 == 9)
      place_.restart();
    ASSERT_TRUE(Catalog_Operator(-1, -1).commit(make_set("s" + std::to_string(i)), true));
  }
  json_spirit::Value result;
  ASSERT_TRUE(Catalog_Operator(-1, -1).get_view("oscar_brcmd", "catalogs", {}, result));
  EXPECT_EQ(40u, json_spirit::find_value(result.get_obj(), "rows").get_array().size());
}

TEST_F(Bad_Network, serves_several_agents_at_once)
{
  std::vector<std::thread> agents;
  std::atomic<unsigned> good{0};
  for (unsigned i = 0; i < 4; ++i)
    agents.emplace_back([this, i, &good] {
      const std::string content = test_content(20 * PIECE + i, i);
      std::string error;
      const std::string name = "f" + std::to_string(i);
      if (store(name, content, error) && fetch(name, error) == content)
        ++good;
      else
        ADD_FAILURE() << error;
    });
  for (int i = 0; i < 5; ++i) {
    const uint64_t before = relay_->bytes_up();
    eventually([&] { return relay_->bytes_up() > before + 5 * PIECE || good == 4; });
    relay_->cut();
  }
  for (std::thread& agent : agents)
    agent.join();
  EXPECT_EQ(4u, good);
}

TEST_F(Bad_Network, carries_the_modules_requests)
{
  place_.before([](const REST_Request& request, REST_Reply& reply) {
    if (request.path != "/k2/r/oscar/cluster")
      return false;
    reply.json = json_spirit::Object{{"selection_time", 7}, {"key", request.headers.at("x-access-key")}};
    return true;
  });
  HTTP_Request request(HTTP_Request::JSON_POST, "/k2/r/oscar/cluster", true);
  const json_spirit::Value body = json_spirit::Object{{"uid", "u"}};
  json_spirit::Value reply;
  ASSERT_TRUE(Upstream_JSON_RESTful_Client::instance()->post(request, &body, &reply));
  EXPECT_EQ("host-1.key", json_spirit::find_value(reply.get_obj(), "key").get_str());
  relay_->cut();
  relay_->refuse(true);
  EXPECT_FALSE(Upstream_JSON_RESTful_Client::instance()->post(request, &body, &reply));
  log_.expect(LM_ERROR, "request /k2/r/oscar/cluster to the backup server failed");
}

TEST_F(Bad_Network, is_known_to_the_host_until_it_is_unregistered)
{
  EXPECT_STREQ("host-1.key", Host_Manager::instance()->access_key());
  EXPECT_FALSE(Host_Manager::instance()->on_backupd());
  // The server's directory is at hand here, as on its own machine, and is left alone all the same.
  EXPECT_EQ(0, ::access(pool_.storage_path.c_str(), W_OK));
  EXPECT_EQ(SERVER_STORAGE, options().back_end);
  EXPECT_EQ("/" + pool_.pool_id, options().storage_path);
  unregister_upstream();
  std::string error;
  Pool_Info pool;
  EXPECT_FALSE(get_pool_info(pool_.pool_id, "", pool, false, 0, nullptr, true, nullptr, nullptr, false));
  log_.expect(LM_ERROR, "there is no pool");
  EXPECT_EQ(nullptr, Host_Manager::instance()->access_key());
  EXPECT_EQ(nullptr, make_storage_back_end(SERVER_STORAGE, error));
}

TEST(Upstream, is_refused_when_it_cannot_be_right)
{
  Upstream_Options options;
  std::string error;
  options.url = "https://server";
  EXPECT_FALSE(register_upstream(options, error));
  EXPECT_NE(std::string::npos, error.find("no access key")) << error;
  options.access_key = "h.k";
  options.url = "http://server";
  EXPECT_FALSE(register_upstream(options, error));
  EXPECT_NE(std::string::npos, error.find("https://HOST:PORT")) << error;
  EXPECT_EQ(nullptr, Host_Manager::instance()->access_key());
}

TEST(Console_Upstream, reads_the_catalog_and_changes_nothing)
{
  Log_Capture log;
  Served_Place place;
  place.listen();
  REST_Client_Options options = place.client_options();
  options.access_key.clear();
  options.bearer = "viewer";
  std::string error;
  ASSERT_TRUE(register_console_upstream(options, error)) << error;
  json_spirit::Value result;
  EXPECT_TRUE(Catalog_Operator(-1, 0).get_view("oscar_brcmd", "catalogs", {}, result));
  Oscar_Brcmd_Backup_Set set;
  set.set_uuid("u");
  EXPECT_FALSE(Catalog_Operator(-1, 0).commit(set, true));
  log.expect(LM_ERROR, "can only be read from here");
  unregister_upstream();
}
} // namespace

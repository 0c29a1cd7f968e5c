#include "served_storage.h"

#include "json/json_util.h"
#include "storage/directory_back_end.h"
#include "storage/pool_mark.h"
#include "storage/side_file.h"
#include "support/unmounted.h"

#include <cerrno>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

using namespace kestrel;
using namespace kestrel_test;

namespace
{
const unsigned PIECE = 64 * 1024;

class Remote_Storage : public Served_Storage
{
protected:
  Remote_Storage() { options_.resumption_buffer_size = PIECE; }

  /// The note of the only upload is one of before.
  void pretend_another_boot()
  {
    const std::string note = "uploads/" + names_in(place_.dir / "uploads").at(0);
    std::string text = read_file(place_.dir / note);
    const size_t boot = text.find("\"boot_id\":\"") + 11;
    text.replace(boot, 4, "zzzz");
    place_.dir.write(note, text);
  }
};

TEST_F(Remote_Storage, gives_back_what_was_stored)
{
  for (const size_t size : {size_t(0), size_t(1), size_t(PIECE - 1), size_t(PIECE), size_t(PIECE + 1),
                            size_t(5u << 20), size_t((7u << 20) + 77)}) {
    SCOPED_TRACE(size);
    const std::string content = test_content(size);
    ASSERT_TRUE(store("f", content)) << error_;
    EXPECT_TRUE(content == fetch("f")) << error_;
    EXPECT_TRUE(content == read_file(path("f")));
    EXPECT_TRUE(exists(path("f.meta")));
    EXPECT_FALSE(exists(path("f.partial")));
  }
}

TEST_F(Remote_Storage, compresses_on_the_way)
{
  const std::string content = test_content(3000000);
  options_.compression_method = COMPRESSION_ZSTD;
  ASSERT_TRUE(store("f", content)) << error_;
  EXPECT_LT(std::filesystem::file_size(path("f")), content.size() * 3 / 4);
  EXPECT_TRUE(content == fetch("f")) << error_;
}

TEST_F(Remote_Storage, reads_at_any_place)
{
  const std::string content = test_content(3000000);
  ASSERT_TRUE(store("f", content)) << error_;
  Client_IO_Ex client;
  ASSERT_TRUE(client.connect(location_, options_)) << client.error();
  bool possible = false;
  ASSERT_TRUE(client.open_random("f", possible)) << client.error();
  ASSERT_TRUE(possible);
  EXPECT_EQ(3000000u, client.random_size());
  for (const unsigned offset : {2999990u, 0u, 1u, 1234567u, 300000u, 299000u, 2999999u, 3000000u, 4000000u})
    for (const unsigned n : {1u, 10u, 5000u, 600000u}) {
      std::string got(n, '\0');
      const int count = client.read_at(offset, &got[0], n);
      ASSERT_LE(0, count) << client.error();
      got.resize(static_cast<size_t>(count));
      EXPECT_TRUE(got == (offset < content.size() ? content.substr(offset, n) : "")) << offset << " " << n;
    }
}

TEST_F(Remote_Storage, keeps_a_taken_name)
{
  ASSERT_TRUE(store("f", "old")) << error_;
  options_.overwrite = false;
  EXPECT_FALSE(store("f", "new"));
  EXPECT_TRUE(name_taken_);
  EXPECT_NE(std::string::npos, error_.find("may not be replaced")) << error_;
  EXPECT_EQ("old", fetch("f"));
  options_.overwrite = true;
  EXPECT_TRUE(store("f", "new")) << error_;
  EXPECT_EQ("new", fetch("f"));
}

TEST_F(Remote_Storage, excludes_a_second_writer_of_a_name)
{
  Client_IO_Ex first, second;
  ASSERT_TRUE(first.connect(location_, options_));
  ASSERT_TRUE(second.connect(location_, options_));
  ASSERT_TRUE(first.open("f", 2, 0, 0)) << first.error();
  EXPECT_FALSE(second.open("f", 2, 0, 0));
  EXPECT_TRUE(second.name_taken());
  ASSERT_TRUE(first.write("abc", 3));
  EXPECT_TRUE(first.close()) << first.error();
  EXPECT_TRUE(second.open("f", 2, 0, 0)) << second.error();
}

TEST_F(Remote_Storage, leaves_an_unfinished_file_recognisable)
{
  {
    Client_IO_Ex client;
    ASSERT_TRUE(client.connect(location_, options_));
    ASSERT_TRUE(client.open("f", 2, 0, 0)) << client.error();
    const std::string content = test_content(3 * PIECE);
    ASSERT_TRUE(client.write(content.data(), 3 * PIECE));
  }
  EXPECT_FALSE(exists(path("f")));
  EXPECT_TRUE(exists(path("f.partial")));
  EXPECT_EQ("", fetch("f"));
  EXPECT_NE(std::string::npos, error_.find("never finished")) << error_;
  // The name is free again.
  EXPECT_TRUE(store("f", "whole")) << error_;
}

TEST_F(Remote_Storage, leaves_nothing_of_a_discarded_file)
{
  Client_IO_Ex client;
  ASSERT_TRUE(client.connect(location_, options_));
  ASSERT_TRUE(client.open("f", 2, 0, 0)) << client.error();
  ASSERT_TRUE(client.write("abc", 3));
  EXPECT_TRUE(client.discard());
  EXPECT_TRUE(names_in(pool_.storage_path + "/source").empty());
  EXPECT_TRUE(names_in(place_.dir / "uploads").empty());
}

TEST_F(Remote_Storage, refuses_names_and_folders_that_lead_elsewhere)
{
  const std::string slash = "/";
  for (const std::string& folder : {std::string(".."), std::string("a/../b"), std::string("a//b"), std::string("/etc"),
                                    std::string("a\nb"), std::string("."), std::string("a/"), std::string(2000, 'x')}) {
    Client_IO_Ex client;
    EXPECT_FALSE(client.connect("/" + pool_.pool_id + "/" + folder, options_) && client.open("f", 2, 0, 0))
        << folder;
  }
  for (const char* target :
       {"storage/%s/source/..", "storage/%s/source/%%2e%%2e", "storage/%s/%%2e%%2e/f", "storage/%s/a%%2f..%%2fb/f",
        "storage/%s/source/a%%2fb", "storage/%s/source/f.meta", "storage/%s/source/f.partial", "storage/%s/source/a%%00b",
        "storage/%s/source/a%%0ab", "storage/%s/%%2fetc/passwd", "storage/../source/f", "storage/none/source/f"}) {
    char text[300];
    std::snprintf(text, sizeof text, target, pool_.pool_id.c_str());
    for (const char* method : {"GET", "DELETE"}) {
      const int status = ask(method, text);
      EXPECT_TRUE(status == 400 || status == 404) << method << " " << text << " " << status;
    }
  }
  for (const char* folder : {"..", "../x", "a/..", "a/../b", ".", "./a", "a/.", "a//b", "a/", "/a", "/", "", "a\\u0001b"})
    EXPECT_EQ(400, ask("POST", "uploads", std::string("{\"upload\":\"00000000-0000-4000-8000-000000000001\",\"pool\":\"") + pool_.pool_id +
                                              "\",\"folder\":\"" + folder + "\",\"name\":\"n\",\"overwrite\":true}"))
        << folder;
  for (const char* folder : {"%2e%2e", "%2e", "a%2f..", "a%2f%2fb", "a%2f", "%2fa"})
    for (const char* name : {"", "/f"})
      EXPECT_EQ(400, ask("GET", "storage/" + pool_.pool_id + "/" + folder + name)) << folder << name;
  for (const char* name : {"", ".", "..", "a/b", "f.meta", "f.partial", "a\\u0000b"})
    EXPECT_EQ(400, ask("POST", "uploads", std::string("{\"upload\":\"00000000-0000-4000-8000-000000000001\",\"pool\":\"") + pool_.pool_id +
                                              "\",\"folder\":\"source\",\"name\":\"" + name + "\",\"overwrite\":true}"))
        << name;
  for (const char* id : {"", "../../x", "7", "00000000-0000-4000-8000-00000000000g"})
    EXPECT_EQ(400, ask("POST", "uploads", std::string("{\"upload\":\"") + id + "\",\"pool\":\"" + pool_.pool_id +
                                              "\",\"folder\":\"source\",\"name\":\"n\",\"overwrite\":true}"))
        << id;
  EXPECT_EQ(std::vector<std::string>{POOL_MARK}, names_in(pool_.storage_path));
}

TEST_F(Remote_Storage, refuses_a_pool_that_is_not_mounted)
{
  ASSERT_TRUE(store("f", "abc")) << error_;
  {
    const Unmounted unmounted(pool_.storage_path);
    const auto told = [this] { return error_.find("mount the pool's file system") != std::string::npos; };
    EXPECT_FALSE(store("g", "def"));
    EXPECT_TRUE(told()) << error_;
    EXPECT_EQ("", fetch("f"));
    EXPECT_TRUE(told()) << error_;
    EXPECT_FALSE(remove("f"));
    EXPECT_TRUE(told()) << error_;
    // Neither a missing file nor one that is gone: those of a connection made before are told the same.
    for (const char* method : {"GET", "DELETE"})
      EXPECT_EQ(507, ask(method, "storage/" + pool_.pool_id + "/source/f"));
  }
  EXPECT_EQ("abc", fetch("f")) << error_;
}

TEST_F(Remote_Storage, is_for_agents_only)
{
  ASSERT_TRUE(store("f", "abc")) << error_;
  const std::string file = "storage/" + pool_.pool_id + "/source/f";
  for (const char* user : {"viewer", "operator", "admin"}) {
    EXPECT_EQ(403, ask("GET", file, "", user));
    EXPECT_EQ(403, ask("GET", file + "/bytes?offset=0&length=1&version=x", "", user));
    EXPECT_EQ(403, ask("DELETE", file, "", user));
    EXPECT_EQ(403, ask("POST", "uploads", "{}", user));
  }
  EXPECT_EQ(401, ask("GET", file, "", ""));
}

TEST_F(Remote_Storage, shows_an_unfinished_file_to_its_host_only)
{
  Client_IO_Ex client;
  ASSERT_TRUE(client.connect(location_, options_));
  ASSERT_TRUE(client.open("f", 2, 0, 0)) << client.error();
  const std::string note = names_in(place_.dir / "uploads").at(0);
  const std::string id = note.substr(0, note.find('.'));
  EXPECT_EQ(200, ask("GET", "uploads/" + id, "", "host-1"));
  EXPECT_EQ(404, ask("GET", "uploads/" + id, "", "host-2"));
  EXPECT_EQ(404, ask("PUT", "uploads/" + id + "/bytes?offset=0", "abc", "host-2"));
  EXPECT_EQ(404, ask("POST", "uploads/" + id + "/commit", R"({"size":0,"side_file":""})", "host-2"));
  EXPECT_EQ(200, ask("DELETE", "uploads/" + id + "?keep=0", "", "host-2"));
  EXPECT_TRUE(exists(path("f.partial")));
}

TEST_F(Remote_Storage, takes_no_bytes_at_a_wrong_place)
{
  Client_IO_Ex client;
  ASSERT_TRUE(client.connect(location_, options_));
  ASSERT_TRUE(client.open("f", 2, 0, 0)) << client.error();
  const std::string note = names_in(place_.dir / "uploads").at(0);
  const std::string upload = "uploads/" + note.substr(0, note.find('.'));
  EXPECT_EQ(409, ask("PUT", upload + "/bytes?offset=1", "abc"));
  EXPECT_EQ(400, ask("PUT", upload + "/bytes", "abc"));
  EXPECT_EQ(400, ask("PUT", upload + "/bytes?offset=-1", "abc"));
  EXPECT_EQ(400, ask("PUT", upload + "/bytes?offset=x", "abc"));
  EXPECT_EQ(200, ask("PUT", upload + "/bytes?offset=0", "abc"));
  EXPECT_EQ(200, ask("PUT", upload + "/bytes?offset=0", "abcde"));
  EXPECT_EQ(200, ask("PUT", upload + "/bytes?offset=2", "cd"));
  EXPECT_EQ(R"({"offset":5})", write_json(reply_.json));
  EXPECT_EQ("abcde", read_file(path("f.partial")));
  Side_File side;
  side.storage_size = 5;
  side.original_checksum = side.storage_checksum = std::string(32, '0');
  const auto body = [&](uint64_t size) {
    return write_json(json_spirit::Object{{"size", size}, {"side_file", side_file_text(side)}});
  };
  EXPECT_EQ(422, ask("POST", upload + "/commit", body(4)));
  EXPECT_EQ(422, ask("POST", upload + "/commit", body(5))) << "a wrong checksum";
  EXPECT_EQ(422, ask("POST", upload + "/commit", R"({"size":5,"side_file":"{}"})"));
  EXPECT_EQ(400, ask("POST", upload + "/commit", "{}"));
  EXPECT_FALSE(exists(path("f")));
  side.original_checksum = side.storage_checksum = xxh3_128_hex("abcde", 5);
  EXPECT_EQ(200, ask("POST", upload + "/commit", body(5)));
  EXPECT_EQ(200, ask("POST", upload + "/commit", body(5)));
  EXPECT_EQ("abcde", read_file(path("f")));
  EXPECT_EQ(409, ask("PUT", upload + "/bytes?offset=5", "more"));
}

TEST_F(Remote_Storage, gives_up_what_nobody_continues)
{
  options_.max_seconds_retry = 10;
  Client_IO_Ex client;
  ASSERT_TRUE(client.connect(location_, options_));
  ASSERT_TRUE(client.open("f", 2, 0, 0)) << client.error();
  ASSERT_TRUE(store("g", "abc")) << error_;
  clock_.advance_msec(3500 * 1000);
  place_.uploads().clean_up();
  EXPECT_TRUE(exists(path("f.partial")));
  clock_.advance_msec(200 * 1000);
  place_.uploads().clean_up();
  EXPECT_FALSE(exists(path("f.partial")));
  EXPECT_TRUE(exists(path("g")));
  EXPECT_FALSE(client.close());
  EXPECT_NE(std::string::npos, std::string(client.error()).find("knows no such unfinished file")) << client.error();
  clock_.advance_msec(25 * 3600 * 1000);
  place_.uploads().clean_up();
  EXPECT_TRUE(names_in(place_.dir / "uploads").empty());
  EXPECT_TRUE(exists(path("g")));
}

TEST_F(Remote_Storage, limits_the_files_that_a_host_sends_at_once)
{
  place_.limits.open_of_host = 3;
  place_.restart();
  options_.max_seconds_retry = 5;
  std::vector<std::unique_ptr<Client_IO_Ex>> clients;
  for (int i = 0; i < 4; ++i) {
    clients.push_back(std::make_unique<Client_IO_Ex>());
    ASSERT_TRUE(clients.back()->connect(location_, options_));
    EXPECT_EQ(i < 3, clients.back()->open("f" + std::to_string(i), 2, 0, 0)) << clients.back()->error();
  }
  EXPECT_NE(std::string::npos, std::string(clients[3]->error()).find("run fewer jobs at once"));
  EXPECT_TRUE(clients[0]->close()) << clients[0]->error();
  EXPECT_TRUE(clients[1]->discard());
  EXPECT_TRUE(clients[3]->open("f3", 2, 0, 0)) << clients[3]->error();
  use_host("host-2");
  EXPECT_TRUE(store("other", "abc")) << error_;
}

TEST_F(Remote_Storage, sends_less_at_once_over_a_network_that_is_too_slow)
{
  options_.resumption_buffer_size = 8 * PIECE;
  // A piece of more than 100000 bytes never arrives in time.
  place_.before([](const REST_Request& request, REST_Reply& reply) {
    if (request.method != "PUT" || request.body.size() <= 100000)
      return false;
    reply = rest_error(503, "busy", "too slow");
    return true;
  });
  const std::string content = test_content(20 * PIECE);
  ASSERT_TRUE(store("f", content)) << error_;
  EXPECT_TRUE(content == fetch("f")) << error_;
}

TEST_F(Remote_Storage, tells_the_agent_that_the_pool_is_full)
{
  const std::string content = test_content(5 * PIECE);
  for (unsigned k = 1; k <= 5; ++k) {
    Fault_File_System faults;
    faults.fail("write", k, ENOSPC);
    // The note of the upload is written too.
    const bool stored = store("f", content);
    if (!faults.met())
      break;
    EXPECT_FALSE(stored) << k;
    EXPECT_NE(std::string::npos, error_.find("No space left on device")) << error_;
    EXPECT_FALSE(exists(path("f")));
  }
  EXPECT_TRUE(store("f", content)) << error_;
}

TEST_F(Remote_Storage, tells_the_agent_that_the_pool_is_gone)
{
  std::filesystem::rename(pool_.storage_path, pool_.storage_path + ".away");
  Client_IO_Ex client;
  EXPECT_FALSE(client.connect(location_, options_));
  EXPECT_NE(std::string::npos, std::string(client.error()).find("check that the pool's file system is mounted"))
      << client.error();
  std::filesystem::rename(pool_.storage_path + ".away", pool_.storage_path);
  location_ = "/no-such-pool/source";
  options_.storage_path = "/no-such-pool";
  EXPECT_FALSE(client.connect(location_, options_));
  EXPECT_NE(std::string::npos, std::string(client.error()).find("there is no pool")) << client.error();
}

TEST_F(Remote_Storage, notices_damage_and_replacement)
{
  const std::string content = test_content(5u << 20);
  ASSERT_TRUE(store("f", content)) << error_;
  std::string error;
  const auto back_end = make_storage_back_end(SERVER_STORAGE, error);
  ASSERT_TRUE(back_end->connect(location_, options_, error)) << error;
  const auto file = back_end->open("f", error);
  ASSERT_TRUE(file) << error;
  ASSERT_TRUE(store("f", test_content(5u << 20, 2))) << error_;
  std::string got(6u << 20, '\0');
  EXPECT_GT(0, file->read(&got[0], 6u << 20, error));
  EXPECT_NE(std::string::npos, error.find("was replaced")) << error;

  std::string damaged = read_file(path("f"));
  damaged[1000000] ^= 1;
  place_.dir.write("pool_main/source/f", damaged);
  EXPECT_EQ("", fetch("f"));
  EXPECT_NE(std::string::npos, error_.find("is damaged")) << error_;
}

TEST_F(Remote_Storage, refuses_answers_of_wrong_sizes)
{
  ASSERT_TRUE(store("f", test_content(100000))) << error_;
  for (const int change : {-1, 1, -100000}) {
    place_.after([change](const REST_Request& request, REST_Reply& reply) {
      if (request.path.find("/bytes") != std::string::npos)
        reply.raw.resize(static_cast<size_t>(static_cast<int>(reply.raw.size()) + change));
    });
    EXPECT_EQ("", fetch("f"));
    EXPECT_NE(std::string::npos, error_.find("bytes instead of 100000")) << error_;
  }
}

// The heart of it: whichever request fails in whichever way, alone or with a restart of the server, the file ends
// up whole.
TEST_F(Remote_Storage, stores_whole_files_whatever_request_is_lost)
{
  const std::string content = test_content(3 * PIECE + 1000);
  for (const auto fault : {Direct_Transport::unreachable, Direct_Transport::lost_before, Direct_Transport::lost_after})
    for (const bool restart : {false, true}) {
      unsigned met = 0;
      for (unsigned k = 1;; ++k) {
        SCOPED_TRACE("request " + std::to_string(k) + " fault " + std::to_string(fault) + (restart ? " restart" : ""));
        const unsigned before = transport_->requests();
        bool reached = false;
        transport_->fail_number(k, fault, [&] {
          reached = true;
          if (restart)
            place_.restart();
        });
        ASSERT_TRUE(store("f" + std::to_string(k), content)) << error_;
        ASSERT_TRUE(content == fetch("f" + std::to_string(k))) << error_;
        ASSERT_FALSE(exists(path("f" + std::to_string(k) + ".partial")));
        ASSERT_LT(before, transport_->requests());
        if (!reached)
          break;
        ++met;
      }
      EXPECT_LE(10u, met);
    }
}

TEST_F(Remote_Storage, goes_on_where_the_server_stopped_in_the_middle_of_a_piece)
{
  const std::string content = test_content(3 * PIECE);
  unsigned restarts = 0;
  transport_->fail("PUT", Direct_Transport::lost_before, 3, [&] {
    // Part of the piece arrived before the server died.
    const std::string note = names_in(place_.dir / "uploads").at(0);
    ask("PUT", "uploads/" + note.substr(0, note.find('.')) + "/bytes?offset=0", content.substr(0, 1000 * ++restarts));
    place_.restart();
  });
  ASSERT_TRUE(store("f", content)) << error_;
  EXPECT_EQ(3u, restarts);
  EXPECT_TRUE(content == fetch("f")) << error_;
}

TEST_F(Remote_Storage, waits_for_the_server_as_long_as_it_was_told)
{
  options_.max_seconds_retry = 45;
  Client_IO_Ex client;
  ASSERT_TRUE(client.connect(location_, options_));
  ASSERT_TRUE(client.open("f", 2, 0, 0)) << client.error();
  const std::string content = test_content(PIECE);
  transport_->fail("", Direct_Transport::unreachable, 1000000);
  const int64_t before = clock_.slept_msec();
  ASSERT_TRUE(client.write(content.data(), PIECE));
  EXPECT_FALSE(client.close());
  EXPECT_NE(std::string::npos, std::string(client.error()).find("waited for the server for 45 s")) << client.error();
  EXPECT_LE(45000, clock_.slept_msec() - before);
  EXPECT_GE(70000, clock_.slept_msec() - before);
}

TEST_F(Remote_Storage, fails_when_the_server_has_lost_what_it_confirmed)
{
  Client_IO_Ex client;
  ASSERT_TRUE(client.connect(location_, options_));
  ASSERT_TRUE(client.open("f", 2, 0, 0)) << client.error();
  const std::string content = test_content(2 * PIECE);
  transport_->fail("PUT", Direct_Transport::lost_after, 1, [&] {
    ASSERT_EQ(0, ::truncate(path("f.partial").c_str(), 10));
    place_.restart();
  });
  // The first piece is confirmed by the second attempt, from byte 10 on: nothing is lost yet.
  ASSERT_TRUE(client.write(content.data(), 2 * PIECE));
  EXPECT_TRUE(client.close()) << client.error();
  EXPECT_TRUE(content == fetch("f"));

  ASSERT_TRUE(client.open("g", 2, 0, 0)) << client.error();
  unsigned puts = 0;
  place_.before([&](const REST_Request& request, REST_Reply& reply) {
    if (request.method != "PUT" || ++puts != 2)
      return false;
    EXPECT_EQ(0, ::truncate(path("g.partial").c_str(), 10));
    reply = rest_error(503, "busy", "restarting");
    return true;
  });
  place_.after([&](const REST_Request&, REST_Reply& reply) {
    if (reply.status == 503) {
      place_.after(nullptr);
      place_.restart();
    }
  });
  ASSERT_TRUE(client.write(content.data(), 2 * PIECE));
  EXPECT_FALSE(client.close());
  EXPECT_NE(std::string::npos, std::string(client.error()).find("unfinished file has 10 bytes")) << client.error();
}

TEST_F(Remote_Storage, does_not_go_on_after_the_servers_machine_was_restarted)
{
  Client_IO_Ex client;
  ASSERT_TRUE(client.connect(location_, options_));
  ASSERT_TRUE(client.open("f", 2, 0, 0)) << client.error();
  pretend_another_boot();
  place_.restart();
  ASSERT_TRUE(client.write("abc", 3));
  EXPECT_FALSE(client.close());
  EXPECT_NE(std::string::npos, std::string(client.error()).find("machine was restarted")) << client.error();
}

TEST_F(Remote_Storage, knows_a_published_file_after_the_servers_machine_was_restarted)
{
  Client_IO_Ex client;
  ASSERT_TRUE(client.connect(location_, options_));
  ASSERT_TRUE(client.open("f", 2, 0, 0)) << client.error();
  ASSERT_TRUE(client.write("abc", 3));
  transport_->fail("POST", Direct_Transport::lost_after, 1, [&] {
    EXPECT_TRUE(std::filesystem::exists(path("f")));
    pretend_another_boot();
    place_.restart();
  });
  EXPECT_TRUE(client.close()) << client.error();
  EXPECT_EQ("abc", fetch("f"));
}

TEST_F(Remote_Storage, does_not_go_on_in_another_file_of_the_name)
{
  Client_IO_Ex client;
  ASSERT_TRUE(client.connect(location_, options_));
  ASSERT_TRUE(client.open("f", 2, 0, 0)) << client.error();
  place_.dir.write("pool_main/source/other", "of somebody else");
  std::filesystem::rename(path("other"), path("f.partial"));
  place_.restart();
  ASSERT_TRUE(client.write("abc", 3));
  EXPECT_FALSE(client.close());
  EXPECT_NE(std::string::npos, std::string(client.error()).find("cannot be continued")) << client.error();
  EXPECT_EQ("of somebody else", read_file(path("f.partial")));
}

TEST_F(Remote_Storage, starts_with_damaged_notes)
{
  Log_Capture log;
  log.allow(LM_WARNING, "cannot be used");
  for (const char* text : {"", "{}", "[]", "{\"version\":2}", "\x01"})
    place_.dir.write("uploads/bad" + std::to_string(text[0]) + std::to_string(std::strlen(text)) + ".json", text);
  place_.restart();
  EXPECT_TRUE(store("f", "abc")) << error_;
}

TEST_F(Remote_Storage, ends_its_waiting_when_the_stream_is_stopped)
{
  auto client = std::make_unique<Client_IO_Ex>();
  ASSERT_TRUE(client->connect(location_, options_));
  ASSERT_TRUE(client->open("f", 2, 0, 0)) << client->error();
  options_.max_seconds_retry = 1000000;
  ASSERT_TRUE(client->connect(location_, options_));
  ASSERT_TRUE(client->open("g", 2, 0, 0)) << client->error();
  transport_->fail("PUT", Direct_Transport::unreachable, 1000000);
  transport_->fail("GET", Direct_Transport::unreachable, 1000000);
  const std::string content = test_content(PIECE);
  ASSERT_TRUE(client->write(content.data(), PIECE));
  EXPECT_TRUE(client->discard());
  client.reset();
  EXPECT_GT(1000000000, clock_.slept_msec());
}

TEST_F(Remote_Storage, reads_on_after_lost_requests_and_restarts)
{
  const std::string content = test_content(7u << 20);
  ASSERT_TRUE(store("f", content)) << error_;
  transport_->fail("GET", Direct_Transport::lost_after, 2, [&] { place_.restart(); });
  transport_->fail("GET", Direct_Transport::unreachable, 3);
  EXPECT_TRUE(content == fetch("f")) << error_;
}

TEST_F(Remote_Storage, says_that_it_could_not_ask)
{
  ASSERT_TRUE(store("f", "abc")) << error_;
  std::string error;
  const auto back_end = make_storage_back_end(SERVER_STORAGE, error);
  options_.max_seconds_retry = 5;
  options_.storage_path = "/" + pool_.pool_id;
  ASSERT_TRUE(back_end->connect(location_, options_, error)) << error;
  transport_->fail("GET", Direct_Transport::unreachable, 1000000);
  EXPECT_EQ(nullptr, back_end->open("f", error));
  EXPECT_EQ(EHOSTUNREACH, errno);
}
} // namespace

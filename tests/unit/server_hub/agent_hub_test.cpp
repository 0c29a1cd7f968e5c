#include "server/agent_hub.h"
#include "server/host_store.h"
#include "server_store.h"
#include "support/clocks.h"
#include "support/waiting.h"
#include "support/memory_channel.h"

using namespace kestrel;
using namespace kestrel_test;

namespace
{
class Agent_Hub_Test : public testing::Test
{
protected:
  void SetUp() override
  {
    store_.enroll("u", "db1"); // its key's hash is "hash"
    std::string error;
    ASSERT_TRUE(hub_.start(error)) << error;
  }
  void TearDown() override { hub_.stop(); }

  std::shared_ptr<Memory_Channel> connect(const std::string& key_hash)
  {
    const auto channel = std::make_shared<Memory_Channel>();
    hub_.connect("u", "db1", key_hash, channel);
    return channel;
  }
  static void greet(Memory_Channel& channel)
  {
    channel.deliver(R"({"jsonrpc":"2.0","id":1,"method":"agent.hello","params":)"
                    R"({"host_uuid":"u","version":"1","instances":[],"jobs":[]}})");
  }

  Fake_Clock clock_;
  Server_Store store_;
  Agent_Hub hub_{store_.database()};
};
} // namespace

TEST_F(Agent_Hub_Test, an_agent_whose_key_was_replaced_before_it_greeted_is_turned_away)
{
  const auto channel = connect("of the former key");
  greet(*channel);
  EXPECT_TRUE(eventually([&] { return !channel->open(); }));
  EXPECT_FALSE(hub_.online("u"));
  const auto fresh = connect("hash");
  greet(*fresh);
  EXPECT_TRUE(eventually([&] { return hub_.online("u"); }));
  EXPECT_TRUE(fresh->open());
}

TEST_F(Agent_Hub_Test, a_connection_that_has_ended_before_it_is_known_holds_up_nobody)
{
  const auto channel = std::make_shared<Memory_Channel>();
  channel->close("The cable was cut.");
  hub_.connect("u", "db1", "hash", channel);
  EXPECT_FALSE(hub_.online("u"));
  const auto fresh = connect("hash");
  greet(*fresh);
  EXPECT_TRUE(eventually([&] { return hub_.online("u"); }));
}

TEST_F(Agent_Hub_Test, a_connection_with_a_former_key_is_dropped_without_a_greeting)
{
  const auto channel = connect("of the former key");
  hub_.drop_revoked();
  EXPECT_FALSE(channel->open());
}

TEST_F(Agent_Hub_Test, a_message_after_the_revocation_is_not_taken_and_ends_the_connection)
{
  const auto state = [](const std::string& word) {
    return R"("method":"job.state","params":{"id":"j","run_id":"r","state":")" + word + "\"}}";
  };
  const auto told = [&] {
    const json_spirit::Value job = hub_.job_state("u", "j");
    return json_spirit::find_value(json_spirit::find_value(job.get_obj(), "now").get_obj(), "state").get_str();
  };
  const std::string instances = R"("method":"instance.changed","params":{"instances":[{"name":"NEW"}]}})";
  for (const char* change : {"UPDATE host SET revoked_at = 7", "UPDATE host SET key_hash = 'new'"})
    for (const std::string& message : {state("succeeded"), instances}) {
      *store_.database().lease() << "UPDATE host SET revoked_at = 0, key_hash = 'hash'";
      const auto channel = connect("hash");
      greet(*channel);
      ASSERT_EQ(1u, channel->wait_sent(1).size());
      channel->deliver(R"({"jsonrpc":"2.0","id":2,)" + state("running"));
      ASSERT_EQ(2u, channel->wait_sent(2).size());
      ASSERT_EQ("running", told()) << "before, it is taken";
      *store_.database().lease() << change;
      channel->deliver(R"({"jsonrpc":"2.0","id":3,)" + message);
      EXPECT_TRUE(eventually([&] { return !channel->open(); })) << change << message;
      EXPECT_TRUE(eventually([&] { return !hub_.online("u"); }));
      EXPECT_EQ("running", told()) << change;
      EXPECT_TRUE(Host_Store(store_.database()).load().at(0).instances.empty()) << change;
    }
}

TEST_F(Agent_Hub_Test, when_a_host_was_seen_last_is_kept_after_it_went)
{
  const auto channel = connect("hash");
  greet(*channel);
  ASSERT_EQ(1u, channel->wait_sent(1).size());
  clock_.advance_msec(100000);
  channel->close("The cable was cut.");
  EXPECT_FALSE(hub_.online("u"));
  const int64_t gone_at = clock_.now();
  hub_.keep_last_seen();
  EXPECT_EQ(gone_at, Host_Store(store_.database()).load().at(0).last_seen);
}

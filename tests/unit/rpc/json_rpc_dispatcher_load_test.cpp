#include "dispatcher_fixture.h"

#include "base/heartbeat.h"
#include "support/clocks.h"

#include <atomic>
#include <map>
#include <thread>

using namespace kestrel_test;

TEST_F(Dispatcher_Test, is_busy_when_the_queue_is_full)
{
  start(2, 3);
  send(R"([{"jsonrpc":"2.0","method":"wait"},{"jsonrpc":"2.0","method":"wait"}])");
  gate_.wait_for(2);
  Log_Capture log;
  for (int i = 0; i < 3; ++i)
    send(R"({"jsonrpc":"2.0","method":"echo","id":"fits"})");
  send(R"({"jsonrpc":"2.0","method":"echo"})");
  EXPECT_EQ(
      R"({"jsonrpc":"2.0","id":9,"error":{"code":-32000,"message":"Too many requests wait already; try again )"
      R"(later."}})",
      ask(R"({"jsonrpc":"2.0","method":"echo","id":9})"));
  EXPECT_EQ(2u, dispatcher_.statistics().refused_busy);
  EXPECT_TRUE(log.expect(LM_WARNING, "3 requests wait"));
  gate_.open();
  EXPECT_EQ(R"({"jsonrpc":"2.0","id":"fits","result":null})", channel_->wait_sent(4)[3]);
  EXPECT_EQ(R"({"jsonrpc":"2.0","id":10,"result":null})",
            ask(R"({"jsonrpc":"2.0","method":"echo","id":10})"));
}

TEST_F(Dispatcher_Test, long_calls_are_no_stuck_dispatcher_and_calls_that_nobody_takes_are)
{
  typedef std::vector<std::string> Names;
  const int64_t long_msec = 20 * 60 * 1000;
  Fake_Clock clock;
  kestrel::Heartbeats heartbeats;
  JSON_RPC_Dispatcher::Options options;
  options.threads = 2;
  options.heartbeats = &heartbeats;
  EXPECT_TRUE(dispatcher_.start(options));
  clock.advance_msec(long_msec);
  EXPECT_TRUE(heartbeats.stuck().empty()) << "there is nothing to do";
  send(R"([{"jsonrpc":"2.0","method":"wait"},{"jsonrpc":"2.0","method":"wait"}])");
  gate_.wait_for(2);
  clock.advance_msec(long_msec);
  EXPECT_TRUE(heartbeats.stuck().empty()) << "nobody waits for them";
  send(R"({"jsonrpc":"2.0","method":"echo","id":1})");
  EXPECT_TRUE(heartbeats.stuck().empty());
  clock.advance_msec(long_msec);
  EXPECT_EQ(Names{"JSON-RPC calls"}, heartbeats.stuck());
  dispatcher_.forget(channel_.get());
  EXPECT_TRUE(heartbeats.stuck().empty()) << "who waited has gone";
  send(R"({"jsonrpc":"2.0","method":"echo","id":2})");
  clock.advance_msec(long_msec);
  EXPECT_EQ(Names{"JSON-RPC calls"}, heartbeats.stuck());
  gate_.open();
  settle();
  EXPECT_TRUE(heartbeats.stuck().empty());
  EXPECT_TRUE(dispatcher_.stop());
  send(R"({"jsonrpc":"2.0","method":"echo","id":3})");
  clock.advance_msec(long_msec);
  EXPECT_TRUE(heartbeats.stuck().empty()) << "what has ended is not missed";
}

TEST_F(Dispatcher_Test, one_connection_cannot_take_the_whole_queue)
{
  JSON_RPC_Dispatcher::Options options;
  options.threads = 2;
  options.channel_queue_limit = 2;
  EXPECT_TRUE(dispatcher_.start(options));
  send(R"([{"jsonrpc":"2.0","method":"wait"},{"jsonrpc":"2.0","method":"wait"}])");
  gate_.wait_for(2);
  const auto other = std::make_shared<Memory_Channel>();
  for (int i = 0; i < 2; ++i)
    send(R"({"jsonrpc":"2.0","method":"echo","id":"fits"})");
  EXPECT_NE(std::string::npos, ask(R"({"jsonrpc":"2.0","method":"echo","id":9})").find("of this connection wait"));
  for (int i = 0; i < 2; ++i)
    dispatcher_.receive(other, R"({"jsonrpc":"2.0","method":"echo","id":"others"})");
  EXPECT_EQ(1u, dispatcher_.statistics().refused_busy);
  gate_.open();
  EXPECT_EQ(R"({"jsonrpc":"2.0","id":"others","result":null})", other->wait_sent(2)[1]);
  settle();
  EXPECT_EQ(R"({"jsonrpc":"2.0","id":10,"result":null})",
            ask(R"({"jsonrpc":"2.0","method":"echo","id":10})"));
}

TEST_F(Dispatcher_Test, is_busy_when_too_many_answers_are_outstanding)
{
  handler_.work = [](Weak_Channel, JSON_RPC_Object_Ptr) { return 0; };
  JSON_RPC_Dispatcher::Options options;
  options.open_limit = 2;
  EXPECT_TRUE(dispatcher_.start(options));
  {
    const auto gone = std::make_shared<Memory_Channel>();
    dispatcher_.receive(gone, R"({"jsonrpc":"2.0","method":"handler","id":1})");
    settle();
  }
  send(R"({"jsonrpc":"2.0","method":"handler","id":1})");
  settle();
  send(R"({"jsonrpc":"2.0","method":"handler","id":2})");
  settle();
  EXPECT_EQ(2u, dispatcher_.statistics().open) << "the one of the lost connection made room";
  Log_Capture log;
  EXPECT_NE(std::string::npos, ask(R"({"jsonrpc":"2.0","method":"handler","id":3})").find("-32000"));
  EXPECT_TRUE(log.expect(LM_WARNING, "2 are not answered"));
}

TEST_F(Dispatcher_Test, keeps_the_order_where_it_is_asked_for)
{
  std::mutex mutex;
  std::map<std::string, std::vector<int>> seen;
  std::atomic<int> inside{0};
  const JSON_RPC_Dispatcher::Peer_Method note = [&](kestrel::Message_Channel& from, const Value& params,
                                                    Value&, JSON_RPC_Error&) {
    const std::lock_guard<std::mutex> guard(mutex);
    seen[from.who()].push_back(params.get_array()[0].get_int());
    return true;
  };
  ASSERT_TRUE(dispatcher_.bind("note", note, JSON_RPC_Order::as_received));
  ASSERT_TRUE(dispatcher_.bind("also", note, JSON_RPC_Order::as_received));
  start(8, 10000);
  const auto other = std::make_shared<Memory_Channel>();
  channel_->identify("one");
  other->identify("two");
  std::vector<int> expected;
  for (int i = 0; i < 1000; ++i) {
    const std::string text = R"({"jsonrpc":"2.0","method":")" + std::string(i % 3 ? "note" : "also") +
                             R"(","params":[)" + std::to_string(i) + "]}";
    dispatcher_.receive(channel_, text);
    dispatcher_.receive(other, text);
    expected.push_back(i);
  }
  settle();
  EXPECT_EQ(expected, seen["one"]);
  EXPECT_EQ(expected, seen["two"]);
}

TEST_F(Dispatcher_Test, goes_on_with_a_lane_whose_requests_were_forgotten)
{
  std::atomic<int> told{0};
  ASSERT_TRUE(dispatcher_.bind(
      "lane",
      [&](const Value& params, Value&, JSON_RPC_Error&) {
        if (!params.is_null())
          gate_.pass();
        ++told;
        return true;
      },
      JSON_RPC_Order::as_received));
  start();
  send(R"({"jsonrpc":"2.0","method":"lane","params":[]})");
  gate_.wait_for(1);
  for (int i = 0; i < 3; ++i) {
    send(R"({"jsonrpc":"2.0","method":"lane","id":1})");
    send(R"({"jsonrpc":"2.0","method":"lane"})");
  }
  dispatcher_.forget(channel_.get());
  gate_.open();
  settle();
  EXPECT_EQ(4, told);
  EXPECT_EQ(R"({"jsonrpc":"2.0","id":1,"result":null})", ask(R"({"jsonrpc":"2.0","method":"lane","id":1})"));
}

TEST_F(Dispatcher_Test, stop_waits_for_what_runs_and_refuses_what_waits)
{
  start();
  send(R"([{"jsonrpc":"2.0","method":"wait","id":1},{"jsonrpc":"2.0","method":"wait","id":2}])");
  gate_.wait_for(2);
  send(R"({"jsonrpc":"2.0","method":"echo","id":3})");
  std::atomic<bool> stopped{false};
  std::thread stopping([&] {
    EXPECT_TRUE(dispatcher_.stop());
    stopped = true;
  });
  EXPECT_EQ(R"({"jsonrpc":"2.0","id":3,"error":{"code":-32000,"message":"The service is stopping."}})",
            channel_->wait_sent(1).front());
  EXPECT_NE(std::string::npos,
            ask(R"({"jsonrpc":"2.0","method":"echo","id":4})").find("The service is stopping."));
  EXPECT_FALSE(stopped);
  gate_.open();
  stopping.join();
  EXPECT_EQ(R"([{"jsonrpc":"2.0","id":1,"result":null},{"jsonrpc":"2.0","id":2,"result":null}])",
            channel_->wait_sent(3)[2]);
  EXPECT_TRUE(dispatcher_.stop()) << "again";
}

TEST_F(Dispatcher_Test, stop_leaves_a_handler_that_does_not_end)
{
  JSON_RPC_Dispatcher::Options options;
  options.stop_timeout_msec = 10;
  EXPECT_TRUE(dispatcher_.start(options));
  send(R"({"jsonrpc":"2.0","method":"wait"})");
  gate_.wait_for(1);
  Log_Capture log;
  EXPECT_FALSE(dispatcher_.stop());
  EXPECT_TRUE(log.expect(LM_ERROR, "a handler still runs after 10 ms"));
  gate_.open();
  settle();
}

TEST_F(Dispatcher_Test, can_be_stopped_by_a_handler)
{
  std::atomic<bool> stopped{false};
  bind("stop", [&](const Value&, Value&, JSON_RPC_Error&) {
    stopped = dispatcher_.stop();
    return true;
  });
  start();
  EXPECT_EQ(R"({"jsonrpc":"2.0","id":1,"result":null})", ask(R"({"jsonrpc":"2.0","method":"stop","id":1})"));
  EXPECT_TRUE(stopped);
  EXPECT_TRUE(dispatcher_.stop());
}

TEST_F(Dispatcher_Test, binds_each_name_once_and_before_the_start)
{
  EXPECT_FALSE(dispatcher_.bind("", &handler_));
  EXPECT_FALSE(dispatcher_.bind("x", static_cast<JSON_RPC_Handler*>(nullptr)));
  EXPECT_FALSE(dispatcher_.bind("x", JSON_RPC_Dispatcher::Method()));
  EXPECT_FALSE(dispatcher_.bind("x", JSON_RPC_Dispatcher::Peer_Method()));
  EXPECT_FALSE(dispatcher_.bind("echo", &handler_));
  start();
  EXPECT_FALSE(dispatcher_.bind("late", &handler_));
}

TEST_F(Dispatcher_Test, starts_once_and_with_two_threads_at_least)
{
  Log_Capture log;
  JSON_RPC_Dispatcher::Options options;
  options.threads = 1;
  EXPECT_FALSE(dispatcher_.start(options));
  EXPECT_TRUE(log.expect(LM_ERROR, "at least two threads"));
  EXPECT_TRUE(dispatcher_.start_with_defaults());
  EXPECT_FALSE(dispatcher_.start_with_defaults());
  EXPECT_TRUE(log.expect(LM_ERROR, "started before"));
  EXPECT_EQ(R"({"jsonrpc":"2.0","id":1,"result":null})", ask(R"({"jsonrpc":"2.0","method":"echo","id":1})"))
      << "the threads of the first start serve on";
}

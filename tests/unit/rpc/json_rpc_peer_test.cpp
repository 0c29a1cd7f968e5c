#include "rpc/json_rpc_peer.h"

#include "support/log_capture.h"
#include "support/memory_channel.h"
#include "support/waiting.h"
#include "json/json_util.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;
using kestrel::JSON_RPC_Dispatcher;
using kestrel::JSON_RPC_Error;
using kestrel::JSON_RPC_Peer;
using kestrel_test::eventually;
using kestrel_test::Log_Capture;
using kestrel_test::Memory_Channel;

namespace
{
constexpr int LONG_MSEC = 60 * 1000;

std::chrono::steady_clock::time_point later(int msec = LONG_MSEC)
{
  return std::chrono::steady_clock::now() + std::chrono::milliseconds(msec);
}

/// The peer under test; the other end is played by the test itself.
class Peer_Test : public testing::Test
{
protected:
  Peer_Test() : channel_(std::make_shared<Memory_Channel>())
  {
    peer_ = JSON_RPC_Peer::start(channel_, nullptr);
  }

  std::shared_ptr<JSON_RPC_Peer::Call> begin(const char* method = "m")
  {
    return peer_->begin_call(method, Value());
  }
  bool finish(const std::shared_ptr<JSON_RPC_Peer::Call>& call, int msec = LONG_MSEC)
  {
    return JSON_RPC_Peer::finish_call(call, later(msec), result_, error_);
  }
  /// The outcome of a call that gets `answer`, in which ID stands for its id.
  bool outcome(std::string answer)
  {
    const auto call = begin();
    Value request;
    std::string error;
    EXPECT_TRUE(kestrel::read_json(channel_->sent().back(), request, error)) << error;
    const std::string id = kestrel::write_json(json_spirit::find_value(request.get_obj(), "id"));
    answer.replace(answer.find("ID"), 2, id);
    channel_->deliver(answer);
    result_ = "untouched";
    error_ = JSON_RPC_Error();
    return finish(call);
  }

  const std::shared_ptr<Memory_Channel> channel_;
  std::shared_ptr<JSON_RPC_Peer> peer_;
  Value result_;
  JSON_RPC_Error error_;
};

/// Two peers, each with methods, connected in memory.
struct Both {
  Both(std::function<void(JSON_RPC_Dispatcher&, int)> bind)
  {
    for (int i = 0; i < 2; ++i) {
      bind(dispatchers[i], i);
      EXPECT_TRUE(dispatchers[i].start_with_defaults());
    }
    const Memory_Channel::Ends ends = Memory_Channel::pair();
    peers[0] = JSON_RPC_Peer::start(ends.first, &dispatchers[0]);
    peers[1] = JSON_RPC_Peer::start(ends.second, &dispatchers[1]);
  }
  ~Both()
  {
    peers[0]->close();
    for (JSON_RPC_Dispatcher& dispatcher : dispatchers)
      EXPECT_TRUE(dispatcher.stop());
  }

  JSON_RPC_Dispatcher dispatchers[2];
  std::shared_ptr<JSON_RPC_Peer> peers[2];
};

bool echo(const Value& params, Value& result, JSON_RPC_Error&)
{
  result = params;
  return true;
}
} // namespace

TEST_F(Peer_Test, writes_requests_and_notifications)
{
  const auto first = peer_->begin_call("a.b", Array{1, "x"});
  const auto second = begin();
  EXPECT_TRUE(peer_->notify("n", Object{{"k", nullptr}}));
  EXPECT_TRUE(peer_->notify("n", Value()));
  EXPECT_EQ((std::vector<std::string>{R"({"jsonrpc":"2.0","id":1,"method":"a.b","params":[1,"x"]})",
                                      R"({"jsonrpc":"2.0","id":2,"method":"m"})",
                                      R"({"jsonrpc":"2.0","method":"n","params":{"k":null}})",
                                      R"({"jsonrpc":"2.0","method":"n"})"}),
            channel_->sent());
}

TEST_F(Peer_Test, gives_the_result)
{
  EXPECT_TRUE(outcome(R"({"jsonrpc":"2.0","id":ID,"result":{"a":1}})"));
  EXPECT_EQ(Value(Object{{"a", 1}}), result_);
  EXPECT_TRUE(outcome(R"({"jsonrpc":"2.0","id":ID,"result":null})"));
  EXPECT_TRUE(result_.is_null());
  EXPECT_TRUE(outcome(R"({"jsonrpc":"2.0","error":null,"id":ID,"result":5})")) << "as some others write it";
}

TEST_F(Peer_Test, gives_the_error_of_the_other_side)
{
  EXPECT_FALSE(
      outcome(R"({"jsonrpc":"2.0","id":ID,"error":{"code":-32001,"message":"no such","data":[1]}})"));
  EXPECT_EQ(-32001, error_.code);
  EXPECT_EQ("no such", error_.message);
  EXPECT_EQ(Value(Array{1}), error_.data);
  EXPECT_EQ(Value("untouched"), result_);
}

TEST_F(Peer_Test, survives_answers_of_any_form)
{
  for (const char* error : {"5", "[]", "{}", R"({"code":"x","message":"m"})", R"({"code":1})",
                            R"({"message":"m"})", R"({"code":99999999999,"message":"m"})", "true"}) {
    EXPECT_FALSE(outcome(R"({"id":ID,"error":)" + std::string(error) + "}"));
    EXPECT_EQ(kestrel::JSON_RPC_INTERNAL_ERROR, error_.code);
    EXPECT_EQ("The answer of memory:1 to m holds an error without code or text.", error_.message);
  }
  EXPECT_FALSE(outcome(R"({"id":ID,"error":null})"));
  EXPECT_EQ("The answer of memory:1 to m holds neither a result nor an error.", error_.message);
}

TEST_F(Peer_Test, takes_answers_in_any_order_and_in_batches)
{
  const auto first = begin(), second = begin(), third = begin();
  channel_->deliver(R"([{"jsonrpc":"2.0","id":3,"result":"c"},{"jsonrpc":"2.0","id":1,"result":"a"}])");
  channel_->deliver(R"({"jsonrpc":"2.0","id":2,"result":"b"})");
  EXPECT_TRUE(finish(first));
  EXPECT_EQ(Value("a"), result_);
  EXPECT_TRUE(finish(second));
  EXPECT_EQ(Value("b"), result_);
  EXPECT_TRUE(finish(third));
  EXPECT_EQ(Value("c"), result_);
  EXPECT_EQ(3u, channel_->sent().size()) << "answers are not answered";
}

TEST_F(Peer_Test, serves_the_requests_of_a_batch_that_holds_answers_too)
{
  const auto call = begin();
  channel_->deliver(R"([{"jsonrpc":"2.0","id":1,"result":"a"},{"jsonrpc":"2.0","id":"q","method":"none"},)"
                    R"({"jsonrpc":"2.0","id":77,"result":"a"}])");
  EXPECT_TRUE(finish(call));
  EXPECT_EQ(R"([{"jsonrpc":"2.0","id":"q","error":{"code":-32601,"message":"Method not found"}}])",
            channel_->sent().back());
}

TEST_F(Peer_Test, drops_answers_that_nobody_waits_for)
{
  for (const char* text :
       {R"({"jsonrpc":"2.0","id":1,"result":1})", R"({"jsonrpc":"2.0","id":null,"error":{}})",
        R"({"jsonrpc":"2.0","id":"x","result":1})", R"({"jsonrpc":"2.0","result":1})",
        R"({"jsonrpc":"2.0","id":18446744073709551615,"result":1})", R"([{"result":1},{"error":2}])"})
    channel_->deliver(text);
  EXPECT_TRUE(channel_->sent().empty());
}

TEST_F(Peer_Test, an_answer_counts_once)
{
  const auto call = begin();
  channel_->deliver(R"({"jsonrpc":"2.0","id":1,"result":"first"})");
  channel_->deliver(R"({"jsonrpc":"2.0","id":1,"result":"second"})");
  EXPECT_TRUE(finish(call));
  EXPECT_EQ(Value("first"), result_);
}

TEST_F(Peer_Test, gives_up_after_the_time_and_drops_the_late_answer)
{
  EXPECT_FALSE(peer_->call("slow", Value(), 1, result_, error_));
  EXPECT_EQ(kestrel::JSON_RPC_TIMED_OUT, error_.code);
  EXPECT_EQ("No answer to slow came from memory:1 in time; whether it took effect is not known.",
            error_.message);
  channel_->deliver(R"({"jsonrpc":"2.0","id":1,"result":1})");
  EXPECT_EQ(1u, channel_->sent().size());
}

TEST_F(Peer_Test, does_not_take_the_other_sides_word_for_what_only_this_side_knows)
{
  for (const int code : {1, 2, 3}) {
    const auto call = begin();
    channel_->deliver(R"({"jsonrpc":"2.0","id":)" + std::to_string(code) + R"(,"error":{"code":)" +
                      std::to_string(code) + R"(,"message":"told"}})");
    EXPECT_FALSE(finish(call));
    EXPECT_EQ(kestrel::JSON_RPC_INTERNAL_ERROR, error_.code);
    EXPECT_EQ("told", error_.message);
  }
}

TEST_F(Peer_Test, limits_the_calls_that_wait)
{
  const auto few = std::make_shared<Memory_Channel>();
  JSON_RPC_Peer::Options options;
  options.pending_limit = 2;
  peer_ = JSON_RPC_Peer::start(few, nullptr, options);
  const auto first = begin();
  auto second = begin();
  EXPECT_FALSE(finish(begin()));
  EXPECT_EQ(kestrel::JSON_RPC_NOT_SENT, error_.code);
  EXPECT_EQ("m was not sent: 2 calls to memory:1 wait for their answers already; try again later.",
            error_.message);
  EXPECT_EQ(2u, few->sent().size());
  second.reset();
  EXPECT_NE(nullptr, begin()) << "a call that was dropped makes room";
  EXPECT_EQ(3u, few->sent().size());
}

TEST_F(Peer_Test, does_not_send_what_is_too_large_or_too_deep)
{
  channel_->limit_bytes(100);
  EXPECT_FALSE(peer_->call("m", Array{std::string(100, 'x')}, LONG_MSEC, result_, error_));
  EXPECT_EQ(kestrel::JSON_RPC_NOT_SENT, error_.code);
  EXPECT_NE(std::string::npos, error_.message.find("are more than a message may have")) << error_.message;
  Value deep;
  for (int i = 0; i < 70; ++i)
    deep = Value(Array(1, deep));
  EXPECT_FALSE(peer_->call("m", deep, LONG_MSEC, result_, error_));
  EXPECT_EQ(kestrel::JSON_RPC_NOT_SENT, error_.code);
  Log_Capture log;
  EXPECT_FALSE(peer_->notify("m", deep));
  EXPECT_TRUE(log.expect(LM_ERROR, "m cannot be sent"));
}

TEST_F(Peer_Test, fails_all_calls_at_once_when_the_connection_closes)
{
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i)
    threads.emplace_back([this] {
      Value result;
      JSON_RPC_Error error;
      EXPECT_FALSE(peer_->call("m", Value(), LONG_MSEC, result, error));
      EXPECT_EQ(kestrel::JSON_RPC_CLOSED, error.code);
      EXPECT_EQ("No answer to m will come: The cable was cut.", error.message);
    });
  channel_->wait_sent(4);
  channel_->close("The cable was cut.");
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_FALSE(peer_->open());
  EXPECT_FALSE(finish(begin()));
  EXPECT_EQ(kestrel::JSON_RPC_NOT_SENT, error_.code);
  EXPECT_EQ("m was not sent: The cable was cut.", error_.message);
  EXPECT_FALSE(peer_->notify("m", Value()));
}

TEST_F(Peer_Test, tells_its_owner_once_when_the_connection_closes)
{
  const auto channel = std::make_shared<Memory_Channel>();
  std::vector<std::string> told;
  JSON_RPC_Peer::Options options;
  options.closed = [&](const std::string& why) { told.push_back(why); };
  peer_ = JSON_RPC_Peer::start(channel, nullptr, options);
  peer_->close("Enough.");
  peer_->close("Again.");
  EXPECT_EQ(std::vector<std::string>{"Enough."}, told);
}

TEST_F(Peer_Test, closes_the_connection_when_nobody_holds_it)
{
  auto call = begin();
  peer_.reset();
  EXPECT_FALSE(channel_->open());
  EXPECT_FALSE(finish(call));
  EXPECT_EQ(kestrel::JSON_RPC_CLOSED, error_.code);
}

TEST_F(Peer_Test, starts_on_a_connection_that_is_closed_already)
{
  const auto channel = std::make_shared<Memory_Channel>();
  channel->close("Too late.");
  bool told = false;
  JSON_RPC_Peer::Options options;
  options.closed = [&](const std::string&) { told = true; };
  peer_ = JSON_RPC_Peer::start(channel, nullptr, options);
  EXPECT_TRUE(told);
  EXPECT_FALSE(peer_->open());
}

TEST_F(Peer_Test, tells_of_text_that_is_no_json)
{
  channel_->deliver("{");
  EXPECT_NE(std::string::npos, channel_->wait_sent(1).front().find("-32700"));
}

TEST(JSON_RPC_Peers, call_each_other_from_many_threads)
{
  Both both([](JSON_RPC_Dispatcher& dispatcher, int) {
    EXPECT_TRUE(dispatcher.bind("echo", echo));
    EXPECT_TRUE(dispatcher.bind("note", echo));
  });
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i)
    threads.emplace_back([&, i] {
      for (int n = 0; n < 100; ++n) {
        const Value params = Array{i, n};
        Value result;
        JSON_RPC_Error error;
        EXPECT_TRUE(both.peers[i % 2]->call("echo", params, LONG_MSEC, result, error)) << error.message;
        EXPECT_EQ(params, result);
        EXPECT_TRUE(both.peers[i % 2]->notify("note", params));
      }
    });
  for (std::thread& thread : threads)
    thread.join();
}

TEST(JSON_RPC_Peers, call_back_from_inside_a_handler)
{
  Both* ends = nullptr;
  Both both([&](JSON_RPC_Dispatcher& dispatcher, int side) {
    EXPECT_TRUE(
        dispatcher.bind("down", [&ends, side](const Value& params, Value& result, JSON_RPC_Error& error) {
          const int depth = params.get_array()[0].get_int();
          if (depth > 0)
            return ends->peers[side]->call("down", Array{depth - 1}, LONG_MSEC, result, error);
          result = "bottom";
          return true;
        }));
  });
  ends = &both;
  Value result;
  JSON_RPC_Error error;
  EXPECT_TRUE(both.peers[0]->call("down", Array{6}, LONG_MSEC, result, error)) << error.message;
  EXPECT_EQ(Value("bottom"), result);
}

TEST(JSON_RPC_Peers, close_during_calls_of_both_sides)
{
  Both both([](JSON_RPC_Dispatcher& dispatcher, int) { EXPECT_TRUE(dispatcher.bind("echo", echo)); });
  std::atomic<int> done{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i)
    threads.emplace_back([&, i] {
      Value result;
      JSON_RPC_Error error;
      while (both.peers[i % 2]->call("echo", Value(), LONG_MSEC, result, error))
        ++done;
      EXPECT_EQ(error.message.find("was not sent") == std::string::npos ? kestrel::JSON_RPC_CLOSED
                                                                        : kestrel::JSON_RPC_NOT_SENT,
                error.code)
          << error.message;
    });
  EXPECT_TRUE(eventually([&] { return done > 100; }));
  both.peers[1]->close("Good night.");
  for (std::thread& thread : threads)
    thread.join();
}

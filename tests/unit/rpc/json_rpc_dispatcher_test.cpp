#include "rpc/json_rpc_dispatcher.h"

#include "support/log_capture.h"
#include "support/memory_channel.h"
#include "support/waiting.h"
#include "json/json_util.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

using json_spirit::Value;
using kestrel::JSON_RPC_Dispatcher;
using kestrel::JSON_RPC_Error;
using kestrel::JSON_RPC_Order;
using kestrel_test::eventually;
using kestrel_test::Log_Capture;
using kestrel_test::Memory_Channel;

namespace
{
/// Holds whoever comes until it is opened.
class Gate
{
public:
  void pass()
  {
    std::unique_lock<std::mutex> lock(mutex_);
    ++waiting_;
    changed_.notify_all();
    changed_.wait(lock, [this] { return open_; });
  }
  void wait_for(unsigned count)
  {
    std::unique_lock<std::mutex> lock(mutex_);
    EXPECT_TRUE(changed_.wait_for(lock, std::chrono::minutes(1), [&] { return waiting_ >= count; }));
  }
  void open()
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    open_ = true;
    changed_.notify_all();
  }

private:
  std::mutex mutex_;
  std::condition_variable changed_;
  unsigned waiting_ = 0;
  bool open_ = false;
};

typedef ACE_Weak_Bound_Ptr<JSON_RPC_Channel, ACE_Thread_Mutex> Weak_Channel;
typedef ACE_Strong_Bound_Ptr<JSON_RPC_Channel, ACE_Thread_Mutex> Strong_Channel;

/// A handler as modules have them; what it does is given by the test.
class Handler : public JSON_RPC_Handler
{
public:
  std::function<int(Weak_Channel, JSON_RPC_Object_Ptr)> work;
  int handle_object(Weak_Channel channel, JSON_RPC_Object_Ptr object) override
  {
    return work(channel, object);
  }
};

int answer_params(Weak_Channel channel, JSON_RPC_Object_Ptr object)
{
  const Strong_Channel strong(channel);
  if (strong.null())
    return -1;
  JSON_RPC_Response* response = new JSON_RPC_Response(*object->request());
  const JSON_RPC_Object_Ptr answer(response);
  response->result() = object->request()->params();
  return strong->send(answer);
}

class Dispatcher_Test : public testing::Test
{
protected:
  Dispatcher_Test()
  {
    handler_.work = answer_params;
    bind("echo", [](const Value& params, Value& result, JSON_RPC_Error&) {
      result = params;
      return true;
    });
    bind("refuse", [](const Value&, Value&, JSON_RPC_Error& error) {
      error.code = kestrel::JSON_RPC_WRONG_STATE;
      error.message = "not now";
      error.data = 7;
      return false;
    });
    bind("throw", [](const Value& params, Value&, JSON_RPC_Error&) { return params.get_bool(); });
    bind("wait", [this](const Value&, Value&, JSON_RPC_Error&) {
      gate_.pass();
      return true;
    });
    EXPECT_TRUE(dispatcher_.bind("handler", &handler_));
  }
  ~Dispatcher_Test() override { gate_.open(); }

  void bind(const char* name, JSON_RPC_Dispatcher::Method method)
  {
    EXPECT_TRUE(dispatcher_.bind(name, method));
  }
  void start(unsigned threads = 2, unsigned queue_limit = 256)
  {
    JSON_RPC_Dispatcher::Options options;
    options.threads = threads;
    options.queue_limit = queue_limit;
    EXPECT_TRUE(dispatcher_.start(options));
  }
  void send(const std::string& text) { dispatcher_.receive(channel_, text); }
  /// The answer to one message.
  std::string ask(const std::string& text)
  {
    const std::size_t before = channel_->sent().size();
    send(text);
    const std::vector<std::string> sent = channel_->wait_sent(before + 1);
    return sent.size() > before ? sent[before] : "nothing";
  }
  /// After this everything that was received before has been handled.
  void settle()
  {
    EXPECT_TRUE(eventually([&] {
      const JSON_RPC_Dispatcher::Statistics now = dispatcher_.statistics();
      return now.queued == 0 && now.running == 0;
    }));
  }

  Gate gate_;
  Handler handler_;
  JSON_RPC_Dispatcher dispatcher_;
  const std::shared_ptr<Memory_Channel> channel_ = std::make_shared<Memory_Channel>();
};

const char* const INVALID_NULL =
    R"({"jsonrpc":"2.0","id":null,"error":{"code":-32600,"message":"Invalid Request"}})";
} // namespace

TEST_F(Dispatcher_Test, answers_with_the_result_of_a_function_and_of_a_handler)
{
  start();
  for (const char* method : {"echo", "handler"}) {
    const std::string begin = R"({"jsonrpc":"2.0","method":")" + std::string(method) + R"(","id":1)";
    EXPECT_EQ(R"({"jsonrpc":"2.0","id":1,"result":{"a":[1,"x"]}})",
              ask(begin + R"(,"params":{"a":[1,"x"]}})"));
    EXPECT_EQ(R"({"jsonrpc":"2.0","id":1,"result":[5]})", ask(begin + R"(,"params":[5]})"));
    EXPECT_EQ(R"({"jsonrpc":"2.0","id":1,"result":null})", ask(begin + R"(,"params":null})"));
    EXPECT_EQ(R"({"jsonrpc":"2.0","id":1,"result":null})", ask(begin + "}"));
  }
}

TEST_F(Dispatcher_Test, gives_back_ids_of_every_kind)
{
  start();
  for (const char* id : {"0", "-3", "18446744073709551615", "1.5", R"("")", R"("a\"b")", "null"})
    EXPECT_EQ(R"({"jsonrpc":"2.0","id":)" + std::string(id) + R"(,"result":null})",
              ask(R"({"jsonrpc":"2.0","method":"echo","id":)" + std::string(id) + "}"));
}

TEST_F(Dispatcher_Test, refuses_what_is_no_request)
{
  start();
  for (const char* text :
       {"1", "null", "\"echo\"", "{}", "[]", R"({"jsonrpc":"2.0","method":"echo","id":true})",
        R"({"jsonrpc":"2.0","method":"echo","id":[1]})", R"({"jsonrpc":"2.0","method":"echo","id":{}})",
        R"({"jsonrpc":"2.0","method":1,"params":"bar"})", R"({"method":"echo"})", R"({"foo":"boo"})"})
    EXPECT_EQ(INVALID_NULL, ask(text)) << text;
  for (const char* text : {R"({"id":"i","method":"echo"})", R"({"jsonrpc":"1.0","method":"echo","id":"i"})",
                           R"({"jsonrpc":2.0,"method":"echo","id":"i"})", R"({"jsonrpc":"2.0","id":"i"})",
                           R"({"jsonrpc":"2.0","method":null,"id":"i"})",
                           R"({"jsonrpc":"2.0","method":"echo","params":1,"id":"i"})",
                           R"({"jsonrpc":"2.0","method":"echo","params":"x","id":"i"})",
                           R"({"jsonrpc":"2.0","id":"i","result":1})"})
    EXPECT_EQ(R"({"jsonrpc":"2.0","id":"i","error":{"code":-32600,"message":"Invalid Request"}})", ask(text))
        << text;
}

TEST_F(Dispatcher_Test, tells_of_text_that_is_no_json)
{
  start();
  for (const char* text :
       {"", "{", "[1,", "{\"jsonrpc\": \"2.0\", \"method\": \"foobar, \"params\"", "\xff", "{} {}"}) {
    const std::string answer = ask(text);
    EXPECT_EQ(0u,
              answer.find(R"({"jsonrpc":"2.0","id":null,"error":{"code":-32700,"message":"Parse error: )"))
        << answer;
  }
}

TEST_F(Dispatcher_Test, refuses_documents_beyond_the_limits)
{
  start();
  const std::string deep = std::string(65, '[') + std::string(65, ']');
  EXPECT_NE(std::string::npos, ask(deep).find("-32700"));
  const std::string huge =
      R"({"jsonrpc":"2.0","method":"echo","id":1,"params":[")" + std::string(17u << 20, 'x') + "\"]}";
  const std::string answer = ask(huge);
  EXPECT_NE(std::string::npos, answer.find("-32700"));
  EXPECT_NE(std::string::npos, answer.find("16777216 bytes")) << answer;
}

TEST_F(Dispatcher_Test, knows_only_what_is_bound)
{
  start();
  EXPECT_EQ(R"({"jsonrpc":"2.0","id":4,"error":{"code":-32601,"message":"Method not found"}})",
            ask(R"({"jsonrpc":"2.0","method":"Echo","id":4})"));
  EXPECT_EQ(R"({"jsonrpc":"2.0","id":4,"error":{"code":-32601,"message":"Method not found"}})",
            ask(R"({"jsonrpc":"2.0","method":"","id":4})"));
}

TEST_F(Dispatcher_Test, passes_the_error_of_a_function_on)
{
  start();
  EXPECT_EQ(R"({"jsonrpc":"2.0","id":1,"error":{"code":-32002,"message":"not now","data":7}})",
            ask(R"({"jsonrpc":"2.0","method":"refuse","id":1})"));
}

TEST_F(Dispatcher_Test, answers_for_what_throws_and_tells_the_log)
{
  handler_.work = [](Weak_Channel, JSON_RPC_Object_Ptr) -> int { throw 5; };
  start();
  Log_Capture log;
  EXPECT_EQ(R"({"jsonrpc":"2.0","id":1,"error":{"code":-32603,"message":"Internal error"}})",
            ask(R"({"jsonrpc":"2.0","method":"throw","id":1})"));
  EXPECT_TRUE(log.expect(LM_ERROR, "the method throw failed"));
  EXPECT_EQ(R"({"jsonrpc":"2.0","id":2,"error":{"code":-32603,"message":"Internal error"}})",
            ask(R"({"jsonrpc":"2.0","method":"handler","id":2})"));
  EXPECT_TRUE(log.expect(LM_ERROR, "the method handler failed for an unknown reason"));
}

TEST_F(Dispatcher_Test, answers_for_a_handler_that_fails_without_an_answer)
{
  handler_.work = [](Weak_Channel, JSON_RPC_Object_Ptr) { return -1; };
  start();
  EXPECT_EQ(R"({"jsonrpc":"2.0","id":1,"error":{"code":-32603,"message":"Internal error"}})",
            ask(R"({"jsonrpc":"2.0","method":"handler","id":1})"));
}

TEST_F(Dispatcher_Test, sends_one_answer_only)
{
  handler_.work = [](Weak_Channel channel, JSON_RPC_Object_Ptr object) {
    EXPECT_EQ(0, answer_params(channel, object));
    EXPECT_EQ(-1, answer_params(channel, object));
    return -1;
  };
  start();
  EXPECT_EQ(R"({"jsonrpc":"2.0","id":1,"result":null})",
            ask(R"({"jsonrpc":"2.0","method":"handler","id":1})"));
  settle();
  EXPECT_EQ(1u, channel_->sent().size());
}

TEST_F(Dispatcher_Test, never_answers_a_notification)
{
  std::atomic<int> handled{0};
  handler_.work = [&](Weak_Channel channel, JSON_RPC_Object_Ptr object) {
    EXPECT_EQ(0, answer_params(channel, object));
    ++handled;
    return 0;
  };
  start();
  Log_Capture log;
  for (const char* method : {"handler", "echo", "refuse", "throw", "unknown"})
    send(R"({"jsonrpc":"2.0","method":")" + std::string(method) + "\"}");
  send(R"([{"jsonrpc":"2.0","method":"handler"},{"jsonrpc":"2.0","method":"unknown","params":[1]}])");
  settle();
  EXPECT_EQ(2, handled);
  EXPECT_TRUE(channel_->sent().empty());
  EXPECT_TRUE(log.expect(LM_ERROR, "the method throw failed"));
}

TEST_F(Dispatcher_Test, answers_a_batch_in_the_order_of_its_requests)
{
  start();
  send(
      R"([{"jsonrpc":"2.0","method":"wait","id":"slow"},)"
      R"({"jsonrpc":"2.0","method":"echo","params":[1],"id":1},{"jsonrpc":"2.0","method":"echo"},)"
      R"(5,{"jsonrpc":"2.0","method":"none","id":1},{"jsonrpc":"2.0","method":"echo","params":[2],"id":1}])");
  gate_.wait_for(1);
  EXPECT_TRUE(channel_->sent().empty());
  gate_.open();
  EXPECT_EQ(R"([{"jsonrpc":"2.0","id":"slow","result":null},{"jsonrpc":"2.0","id":1,"result":[1]},)" +
                std::string(INVALID_NULL) +
                R"(,{"jsonrpc":"2.0","id":1,"error":{"code":-32601,"message":"Method not found"}},)"
                R"({"jsonrpc":"2.0","id":1,"result":[2]}])",
            channel_->wait_sent(1).front());
  settle();
  EXPECT_EQ(1u, channel_->sent().size());
}

TEST_F(Dispatcher_Test, answers_a_batch_of_nonsense_part_by_part)
{
  start();
  const std::string one = INVALID_NULL;
  EXPECT_EQ("[" + one + "]", ask("[1]"));
  EXPECT_EQ("[" + one + "," + one + "," + one + "]", ask("[1,[],null]"));
}

TEST_F(Dispatcher_Test, refuses_a_batch_of_too_many)
{
  start();
  std::string batch = "[1";
  for (int i = 0; i < 1000; ++i)
    batch += ",1";
  EXPECT_EQ(
      R"({"jsonrpc":"2.0","id":null,"error":{"code":-32600,"message":"Invalid Request: a batch holds at most )"
      R"(1000 requests, not 1001"}})",
      ask(batch + "]"));
}

TEST_F(Dispatcher_Test, lets_a_handler_answer_later)
{
  std::vector<std::pair<Weak_Channel, JSON_RPC_Object_Ptr>> kept;
  std::mutex mutex;
  handler_.work = [&](Weak_Channel channel, JSON_RPC_Object_Ptr object) {
    const std::lock_guard<std::mutex> guard(mutex);
    kept.emplace_back(channel, object);
    return 0;
  };
  start();
  send(R"([{"jsonrpc":"2.0","method":"handler","id":1},{"jsonrpc":"2.0","method":"handler","id":2}])");
  send(R"({"jsonrpc":"2.0","method":"handler","id":3})");
  settle();
  EXPECT_TRUE(channel_->sent().empty());
  EXPECT_EQ(3u, dispatcher_.statistics().open);
  for (const auto& request : kept)
    EXPECT_EQ(0, answer_params(request.first, request.second));
  const std::vector<std::string> sent = channel_->wait_sent(2);
  EXPECT_EQ(1,
            std::count(sent.begin(), sent.end(),
                       R"([{"jsonrpc":"2.0","id":1,"result":null},{"jsonrpc":"2.0","id":2,"result":null}])"));
  EXPECT_EQ(1, std::count(sent.begin(), sent.end(), R"({"jsonrpc":"2.0","id":3,"result":null})"));
  EXPECT_EQ(0u, dispatcher_.statistics().open);
  for (const auto& request : kept)
    EXPECT_EQ(-1, answer_params(request.first, request.second)) << "its channel is gone";
}

TEST_F(Dispatcher_Test, forgets_the_requests_of_a_closed_connection)
{
  Weak_Channel kept;
  JSON_RPC_Object_Ptr object;
  handler_.work = [&](Weak_Channel channel, JSON_RPC_Object_Ptr request) {
    kept = channel;
    object = request;
    return 0;
  };
  std::atomic<int> told{0};
  bind("tell", [&](const Value&, Value&, JSON_RPC_Error&) {
    ++told;
    return true;
  });
  start();
  send(R"({"jsonrpc":"2.0","method":"handler","id":1})");
  settle();
  send(R"([{"jsonrpc":"2.0","method":"wait","id":2},{"jsonrpc":"2.0","method":"wait","id":3}])");
  gate_.wait_for(2);
  send(R"({"jsonrpc":"2.0","method":"tell","id":4})");
  send(R"({"jsonrpc":"2.0","method":"tell"})");
  channel_->close("Gone.");
  dispatcher_.forget(channel_.get());
  gate_.open();
  settle();
  EXPECT_EQ(1, told) << "the notification is not lost, the request is";
  EXPECT_EQ(-1, answer_params(kept, object));
  EXPECT_TRUE(channel_->sent().empty());
  EXPECT_EQ(0u, dispatcher_.statistics().open);
}

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

TEST_F(Dispatcher_Test, says_so_when_an_answer_is_too_large)
{
  start();
  channel_->limit_bytes(1000);
  const std::string large =
      R"({"jsonrpc":"2.0","method":"echo","id":1,"params":[")" + std::string(900, 'x') + "\"]}";
  EXPECT_EQ(R"({"jsonrpc":"2.0","id":1,"result":[")" + std::string(900, 'x') + "\"]}", ask(large));
  const std::string larger =
      R"({"jsonrpc":"2.0","method":"echo","id":1,"params":[")" + std::string(1000, 'x') + "\"]}";
  EXPECT_NE(std::string::npos, ask(larger).find("The answer is larger than a message may be"));
  const std::string half =
      R"({"jsonrpc":"2.0","method":"echo","id":1,"params":[")" + std::string(400, 'x') + "\"]}";
  const std::string answer = ask("[" + half + "," + half + "]");
  EXPECT_LE(answer.size(), 1000u);
  EXPECT_NE(std::string::npos, answer.find("The answer is larger"));
  EXPECT_NE(std::string::npos, answer.find(std::string(400, 'x')));
}

TEST_F(Dispatcher_Test, says_so_when_an_answer_is_too_deep)
{
  bind("deep", [](const Value&, Value& result, JSON_RPC_Error&) {
    for (int i = 0; i < 70; ++i)
      result = Value(json_spirit::Array(1, result));
    return true;
  });
  start();
  Log_Capture log;
  EXPECT_EQ(R"({"jsonrpc":"2.0","id":1,"error":{"code":-32603,"message":"Internal error"}})",
            ask(R"({"jsonrpc":"2.0","method":"deep","id":1})"));
  EXPECT_TRUE(log.expect(LM_ERROR, "the answer cannot be sent"));
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

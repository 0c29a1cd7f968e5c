#include "dispatcher_fixture.h"

#include <algorithm>
#include <atomic>

using namespace kestrel_test;

namespace
{
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

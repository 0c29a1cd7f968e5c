#include "rpc/json_rpc.h"

#include "rpc/json_restful_client.h"
#include "support/log_capture.h"
#include "json/json_util.h"

#include <gtest/gtest.h>

#include <stdexcept>

using json_spirit::Value;
using kestrel_test::Log_Capture;

namespace
{
class Channel : public JSON_RPC_Channel
{
public:
  std::string text;
  int result = 0;

protected:
  int send_text(const std::string& sent) override
  {
    text = sent;
    return result;
  }
};

class Client : public JSON_RESTful_Client
{
public:
  int status = 200;
  std::string answer = "{}", sent = "nothing";
  bool reached = true, throws = false;

protected:
  bool exchange(const HTTP_Request&, const std::string& body, Exchange_Result& result,
                std::string& error) override
  {
    sent = body;
    if (throws)
      throw std::runtime_error("broken");
    result.status = status;
    result.body = answer;
    error = "nobody listens at 100%s";
    return reached;
  }
};

Value nested(unsigned levels)
{
  Value value = 1;
  for (unsigned i = 0; i < levels; ++i)
    value = json_spirit::Array{value};
  return value;
}
} // namespace

TEST(JSON_RPC_Messages, know_their_kind)
{
  const JSON_RPC_Request request("a", "oscar.list", Value());
  EXPECT_EQ(request.request(), &request);
  EXPECT_EQ(request.JSON_RPC_Object::response(), nullptr);
  EXPECT_TRUE(request.params().is_null());
  const JSON_RPC_Response response(request);
  EXPECT_EQ(response.response(), &response);
  EXPECT_EQ(response.JSON_RPC_Object::request(), nullptr);
  EXPECT_EQ(response.id(), Value("a"));
}

TEST(JSON_RPC_Channel, sends_a_result_and_an_error_in_fixed_order)
{
  Channel channel;
  auto* const response = new JSON_RPC_Response(JSON_RPC_Request(7, "m", Value()));
  response->result() = json_spirit::Object{{"b", 1}, {"a", "x"}};
  EXPECT_EQ(channel.send(JSON_RPC_Object_Ptr(response)), 0);
  EXPECT_EQ(channel.text, R"({"jsonrpc":"2.0","id":7,"result":{"b":1,"a":"x"}})");
  channel.result = 9;
  EXPECT_EQ(channel.send_error(-32602, "id", "no\n", Value()), 9);
  EXPECT_EQ(channel.text,
            "{\"jsonrpc\":\"2.0\",\"id\":\"id\",\"error\":{\"code\":-32602,\"message\":\"no\\n\"}}");
  EXPECT_EQ(channel.send_error(-1, Value(), "no", 5), 9);
  EXPECT_EQ(channel.text, R"({"jsonrpc":"2.0","id":null,"error":{"code":-1,"message":"no","data":5}})");
}

TEST(JSON_RPC_Channel, sends_text_that_is_no_utf8_as_replacement_characters)
{
  Channel channel;
  EXPECT_EQ(channel.send_error(1, 1, "a\xff", Value()), 0);
  EXPECT_NE(channel.text.find("a\xef\xbf\xbd"), std::string::npos);
}

TEST(JSON_RPC_Channel, refuses_what_is_no_answer)
{
  Channel channel;
  EXPECT_EQ(channel.send(JSON_RPC_Object_Ptr()), -1);
  EXPECT_EQ(channel.send(JSON_RPC_Object_Ptr(new JSON_RPC_Request(1, "m", Value()))), -1);
  EXPECT_EQ(channel.text, "");
}

TEST(JSON_RPC_Channel, an_answer_that_cannot_be_written_is_reported)
{
  Log_Capture log;
  Channel channel;
  auto* const response = new JSON_RPC_Response(JSON_RPC_Request(7, "m", Value()));
  response->result() = nested(100);
  EXPECT_EQ(channel.send(JSON_RPC_Object_Ptr(response)), -1);
  EXPECT_TRUE(log.expect(LM_ERROR, "the answer cannot be sent"));
  EXPECT_EQ(channel.text, "");
}

TEST(JSON_RESTful_Client, posts_and_reads_the_answer)
{
  Client client;
  HTTP_Request request(HTTP_Request::JSON_POST, "/k2/r/x", true);
  const Value body = json_spirit::Object{{"a", 1}};
  Value reply = "old";
  client.status = 299;
  client.answer = "[1,2]";
  EXPECT_TRUE(client.post(request, &body, &reply));
  EXPECT_EQ(client.sent, "{\"a\":1}");
  EXPECT_EQ(reply, Value(json_spirit::Array{1, 2}));
  EXPECT_TRUE(client.post(request, nullptr, nullptr));
  EXPECT_EQ(client.sent, "");
}

TEST(JSON_RESTful_Client, anything_else_fails_and_leaves_the_reply_alone)
{
  struct Case {
    const char* name;
    void (*prepare)(Client&);
    const char* cause;
  };
  const Case cases[] = {
      {"not reached", [](Client& client) { client.reached = false; }, "nobody listens at 100%s"},
      {"continues", [](Client& client) { client.status = 199; }, "status 199"},
      {"redirected", [](Client& client) { client.status = 300; }, "status 300"},
      {"refused", [](Client& client) { client.status = 500; }, "status 500"},
      {"empty", [](Client& client) { client.answer = ""; }, "not JSON"},
      {"no document", [](Client& client) { client.answer = "<html>"; }, "not JSON"},
      {"more than one", [](Client& client) { client.answer = "{}{}"; }, "not JSON"},
      {"too deep", [](Client& client) { client.answer = std::string(100000, '['); }, "not JSON"},
      {"exception", [](Client& client) { client.throws = true; }, "broken"},
  };
  for (const Case& test : cases) {
    Log_Capture log;
    Client client;
    test.prepare(client);
    HTTP_Request request(HTTP_Request::JSON_POST, "/k2/r/x", true);
    Value reply = "old";
    EXPECT_FALSE(client.post(request, nullptr, &reply)) << test.name;
    EXPECT_EQ(reply, Value("old")) << test.name;
    EXPECT_TRUE(log.expect(LM_ERROR, "request /k2/r/x to the backup server failed: ")) << test.name;
    EXPECT_EQ(log.count(test.cause), 1u) << test.name;
  }
}

TEST(JSON_RESTful_Client, a_body_that_cannot_be_written_is_not_sent)
{
  Log_Capture log;
  Client client;
  HTTP_Request request(HTTP_Request::JSON_POST, "/k2/r/x", true);
  const Value body = nested(100);
  EXPECT_FALSE(client.post(request, &body, nullptr));
  EXPECT_EQ(client.sent, "nothing");
  EXPECT_TRUE(log.expect(LM_ERROR, "/k2/r/x"));
}

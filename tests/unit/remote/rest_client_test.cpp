#include "scripted_transport.h"

#include "json/json_util.h"
#include "support/clocks.h"

#include <gtest/gtest.h>

using namespace kestrel;
using namespace kestrel_test;

namespace
{
class Rest_Client : public testing::Test
{
protected:
  REST_Client_Options options()
  {
    REST_Client_Options made;
    made.url = "https://server:7480";
    made.access_key = "host.secretkey";
    return made;
  }

  bool get(REST_Retry retry = REST_Retry())
  {
    REST_Call call;
    call.path = "/k2/r/status";
    call.retry = retry;
    return client_.call(call, nullptr, reply_, problem_);
  }

  Fake_Clock clock_;
  std::shared_ptr<Scripted_Transport> server_ = std::make_shared<Scripted_Transport>();
  REST_Client client_{options(), server_};
  json_spirit::Value reply_;
  REST_Problem problem_;
};

TEST_F(Rest_Client, gives_the_answer_as_json)
{
  server_->answer(200, R"({"a":[1,2]})");
  ASSERT_TRUE(get());
  EXPECT_EQ(R"({"a":[1,2]})", write_json(reply_));
}

TEST_F(Rest_Client, posts_json)
{
  server_->answer(201, "");
  json_spirit::Object body = {{"name", "x"}};
  ASSERT_TRUE(client_.post(rest_path({"pools"}), body, reply_, problem_));
  EXPECT_TRUE(reply_.is_null());
  ASSERT_EQ(1u, server_->seen.size());
  EXPECT_EQ("POST", server_->seen[0].method);
  EXPECT_EQ("/k2/r/pools", server_->seen[0].path);
  EXPECT_EQ(R"({"name":"x"})", server_->seen[0].body);
}

TEST_F(Rest_Client, tells_what_the_server_said_about_a_refusal)
{
  server_->answer(404, R"({"error":{"code":"not_found","message":"there is no pool \"x\"\nadd it"}})");
  ASSERT_FALSE(get());
  EXPECT_EQ(REST_Problem::refused, problem_.kind);
  EXPECT_EQ(404, problem_.status);
  EXPECT_EQ("not_found", problem_.code);
  EXPECT_EQ("the backup server https://server:7480 refused: there is no pool \"x\" add it", problem_.text);
  EXPECT_TRUE(reply_.is_null());
}

TEST_F(Rest_Client, tells_what_may_work_later_from_what_is_refused)
{
  const std::string server = "the backup server https://server:7480";
  server_->answer(503, R"({"error":{"code":"busy","message":"the disk is full"}})");
  ASSERT_FALSE(get());
  EXPECT_EQ(server + " cannot do that now: the disk is full", problem_.text);
  // Whoever verifies a backup knows a damaged file by these words.
  server_->answer(507, R"({"error":{"code":"storage","message":"cannot open x: it is damaged"}})");
  ASSERT_FALSE(get());
  EXPECT_EQ(server + " refused: cannot open x: it is damaged", problem_.text);
}

TEST_F(Rest_Client, names_the_status_when_the_server_said_nothing_usable)
{
  for (const char* body : {"", "<html>", "[]", "{\"error\":7}", "{\"error\":{\"message\":{}}}"}) {
    server_->answer(418, body);
    ASSERT_FALSE(get()) << body;
    EXPECT_NE(std::string::npos, problem_.text.find("status 418")) << body;
  }
}

TEST_F(Rest_Client, tells_server_trouble_from_a_refusal)
{
  for (const int status : {429, 500, 502, 503, 504}) {
    server_->answer(status, "");
    ASSERT_FALSE(get());
    EXPECT_EQ(REST_Problem::busy, problem_.kind) << status;
  }
  for (const int status : {301, 400, 401, 403, 404, 409, 413}) {
    server_->answer(status, "");
    ASSERT_FALSE(get());
    EXPECT_EQ(REST_Problem::refused, problem_.kind) << status;
  }
}

TEST_F(Rest_Client, refuses_an_answer_that_is_no_json)
{
  std::string deep(65, '[');
  deep += std::string(65, ']');
  for (const std::string& body : {std::string("hello"), std::string("{"), deep}) {
    server_->answer(200, body);
    ASSERT_FALSE(get());
    EXPECT_EQ(REST_Problem::unusable, problem_.kind);
    EXPECT_NE(std::string::npos, problem_.text.find("https://server:7480"));
  }
}

TEST_F(Rest_Client, tries_an_unreachable_server_again_until_the_time_is_over)
{
  REST_Retry retry;
  retry.seconds = 10;
  ASSERT_FALSE(get(retry));
  EXPECT_EQ(10000, clock_.slept_msec());
  EXPECT_GT(server_->seen.size(), 5u);
  EXPECT_LT(server_->seen.size(), 15u);
}

TEST_F(Rest_Client, ends_its_retries_with_the_first_answer)
{
  server_->fail(REST_Problem::unreachable, "down");
  server_->answer(503, "");
  server_->answer(429, "");
  server_->answer(200, "7");
  REST_Retry retry;
  retry.seconds = 10;
  ASSERT_TRUE(get(retry));
  EXPECT_EQ(4u, server_->seen.size());
}

TEST_F(Rest_Client, does_not_repeat_a_request_that_was_refused)
{
  server_->answer(409, "");
  REST_Retry retry;
  retry.seconds = 10;
  ASSERT_FALSE(get(retry));
  EXPECT_EQ(1u, server_->seen.size());
}

TEST_F(Rest_Client, repeats_a_lost_request_only_when_that_is_allowed)
{
  REST_Retry retry;
  retry.seconds = 10;
  server_->fail(REST_Problem::lost, "cut");
  ASSERT_FALSE(get(retry));
  EXPECT_EQ(REST_Problem::lost, problem_.kind);
  EXPECT_EQ(1u, server_->seen.size());

  retry.repeat_lost = true;
  server_->fail(REST_Problem::lost, "cut");
  server_->answer(200, "1");
  EXPECT_TRUE(get(retry));
}

TEST_F(Rest_Client, ends_its_retries_when_the_caller_gives_up)
{
  std::atomic<bool> stopped(true);
  REST_Call call;
  call.path = "/";
  call.retry.seconds = 1000;
  call.stopped = &stopped;
  ASSERT_FALSE(client_.call(call, nullptr, reply_, problem_));
  EXPECT_EQ(0, clock_.slept_msec());
}

TEST_F(Rest_Client, never_tells_its_secret)
{
  server_->fail(REST_Problem::unreachable, "down");
  ASSERT_FALSE(get());
  EXPECT_EQ(std::string::npos, problem_.text.find("secretkey"));
}

TEST(Rest_Path, escapes_whatever_could_end_a_part)
{
  EXPECT_EQ("/k2/r/pools/a%2Fb%3Fc%23%20%25", rest_path({"pools", "a/b?c# %"}));
  EXPECT_EQ("/k2/r/runs?limit=5&host=a%26b", rest_path({"runs"}, {{"limit", "5"}, {"host", "a&b"}}));
  EXPECT_EQ("%C3%A4%00", url_escape(std::string("\xc3\xa4\0", 3)));
}

TEST(Server_Url, is_taken_apart)
{
  std::string host, error;
  unsigned short port = 0;
  ASSERT_TRUE(parse_server_url("https://backup.example:1234", host, port, error));
  EXPECT_EQ("backup.example", host);
  EXPECT_EQ(1234, port);
  ASSERT_TRUE(parse_server_url("https://10.0.0.1/", host, port, error));
  EXPECT_EQ("10.0.0.1", host);
  EXPECT_EQ(7480, port);
  ASSERT_TRUE(parse_server_url("https://[::1]:99", host, port, error));
  EXPECT_EQ("::1", host);
  EXPECT_EQ(99, port);
}

TEST(Server_Url, is_refused_when_malformed)
{
  std::string host = "old", error;
  unsigned short port = 1;
  for (const char* url :
       {"", "http://a", "https://", "https://:1", "https://a:", "https://a:0", "https://a:65536", "https://a:1x",
        "https://user:pass@a", "https://a/b", "https://a?b", "https://[::1", "https://a b", "https://[::1]x",
        "https://a:000001"}) {
    EXPECT_FALSE(parse_server_url(url, host, port, error)) << url;
    EXPECT_EQ(std::string::npos, error.find("pass"));
  }
  EXPECT_EQ("old", host);
  EXPECT_EQ(1, port);
}

TEST(Scoped_Rest_Transport, serves_clients_made_meanwhile)
{
  const auto server = std::make_shared<Scripted_Transport>();
  server->answer(200, "1");
  const Scoped_REST_Transport scope(server);
  REST_Client_Options options;
  options.url = "https://x";
  REST_Client client(options);
  json_spirit::Value reply;
  REST_Problem problem;
  EXPECT_TRUE(client.get("/k2/r/status", reply, problem));
}

TEST(Curl_Transport, refuses_a_bad_address_and_a_damaged_secret)
{
  json_spirit::Value reply;
  REST_Problem problem;
  REST_Client_Options options;
  options.url = "ftp://x";
  EXPECT_FALSE(REST_Client(options).get("/", reply, problem));
  EXPECT_EQ(REST_Problem::unusable, problem.kind);
  options.url = "https://127.0.0.1:1";
  options.bearer = "a\r\nX-Other: b";
  EXPECT_FALSE(REST_Client(options).get("/", reply, problem));
  EXPECT_EQ(REST_Problem::unusable, problem.kind);
  EXPECT_EQ(std::string::npos, problem.text.find("X-Other"));
}

TEST(Curl_Transport, tells_that_nobody_listens)
{
  json_spirit::Value reply;
  REST_Problem problem;
  REST_Client_Options options;
  options.url = "https://127.0.0.1:1";
  EXPECT_FALSE(REST_Client(options).get("/", reply, problem));
  EXPECT_EQ(REST_Problem::unreachable, problem.kind);
  EXPECT_NE(std::string::npos, problem.text.find("cannot reach the backup server https://127.0.0.1:1"));
}
} // namespace

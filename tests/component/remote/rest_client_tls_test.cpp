#include "served_place.h"

#include "support/relay.h"
#include "support/waiting.h"
#include "json/json_util.h"

#include <gtest/gtest.h>

#include <ctime>

using namespace kestrel;
using namespace kestrel_test;

namespace
{
class Rest_Client_Tls : public testing::Test
{
protected:
  bool get(const REST_Client_Options& options, const std::string& path = "/k2/r/pools", unsigned seconds = 60)
  {
    REST_Client client(options);
    REST_Call call;
    call.path = path;
    call.seconds = seconds;
    json_spirit::Value reply;
    problem_ = REST_Problem();
    return client.call(call, nullptr, reply, problem_);
  }

  bool says(const std::string& text) const { return problem_.text.find(text) != std::string::npos; }

  Served_Place place_;
  REST_Problem problem_;
};

TEST_F(Rest_Client_Tls, reaches_a_server_whose_authority_it_knows)
{
  place_.listen();
  EXPECT_TRUE(get(place_.client_options())) << problem_.text;
  REST_Client_Options options = place_.client_options();
  options.ca_file = place_.dir.write("ca.pem", place_.ca_pem());
  options.ca_pem.clear();
  EXPECT_TRUE(get(options)) << problem_.text;
}

TEST_F(Rest_Client_Tls, trusts_nobody_else)
{
  place_.listen();
  REST_Client_Options options = place_.client_options();
  options.ca_pem.clear();
  EXPECT_FALSE(get(options));
  EXPECT_EQ(REST_Problem::unusable, problem_.kind);
  EXPECT_TRUE(says("cannot be trusted: its certificate is not signed by an authority that is known here"))
      << problem_.text;
  EXPECT_TRUE(says("--ca FILE")) << problem_.text;

  place_.stop();
  place_.make_certificate("127.0.0.1", false);
  place_.listen();
  EXPECT_FALSE(get(place_.client_options()));
  EXPECT_EQ(REST_Problem::unusable, problem_.kind);
  EXPECT_EQ(0u, place_.requests().size());
}

TEST_F(Rest_Client_Tls, says_when_the_file_of_the_authority_is_not_there)
{
  place_.listen();
  REST_Client_Options options = place_.client_options();
  options.ca_pem.clear();
  options.ca_file = place_.dir / "nosuch.pem";
  EXPECT_FALSE(get(options));
  EXPECT_EQ(REST_Problem::unusable, problem_.kind);
  EXPECT_TRUE(says("nosuch.pem; check the file of the authority")) << problem_.text;
  EXPECT_EQ(0u, place_.requests().size());
}

TEST_F(Rest_Client_Tls, refuses_a_certificate_of_another_host)
{
  place_.make_certificate("elsewhere.example");
  place_.listen();
  EXPECT_FALSE(get(place_.client_options()));
  EXPECT_EQ(REST_Problem::unusable, problem_.kind);
  EXPECT_TRUE(says("its certificate is not for the name or address in this URL")) << problem_.text;
}

TEST_F(Rest_Client_Tls, refuses_an_expired_certificate)
{
  place_.make_certificate("127.0.0.1", true, ::time(nullptr) - 10);
  place_.listen();
  EXPECT_FALSE(get(place_.client_options()));
  EXPECT_EQ(REST_Problem::unusable, problem_.kind);
  EXPECT_TRUE(says("its certificate has expired; renew it on the server")) << problem_.text;
}

TEST_F(Rest_Client_Tls, tells_a_wrong_key_without_showing_it)
{
  place_.listen();
  REST_Client_Options options = place_.client_options();
  options.access_key = "host-1.verysecret";
  EXPECT_FALSE(get(options));
  EXPECT_EQ(REST_Problem::refused, problem_.kind);
  EXPECT_EQ(401, problem_.status);
  EXPECT_FALSE(says("verysecret"));
}

TEST_F(Rest_Client_Tls, a_viewer_that_tries_to_write_is_told_so)
{
  place_.listen();
  REST_Client_Options options = place_.client_options();
  options.access_key.clear();
  options.bearer = "viewer";
  EXPECT_TRUE(get(options)) << problem_.text;
  REST_Client client(options);
  json_spirit::Value reply;
  EXPECT_FALSE(
      client.post("/k2/r/pools", json_spirit::Object{{"name", "x"}, {"path", "/tmp"}}, reply, problem_));
  EXPECT_EQ(403, problem_.status);
  EXPECT_TRUE(says("viewer")) << problem_.text;
}

TEST_F(Rest_Client_Tls, tells_that_something_else_listens_there)
{
  place_.listen();
  Relay relay(place_.port());
  relay.babble("220 mail.example ESMTP\r\n");
  REST_Client_Options options = place_.client_options();
  options.url = relay.url();
  EXPECT_FALSE(get(options));
  EXPECT_EQ(REST_Problem::unreachable, problem_.kind) << problem_.text;
}

TEST_F(Rest_Client_Tls, waits_no_longer_than_it_was_told)
{
  place_.listen();
  Relay relay(place_.port());
  REST_Client_Options options = place_.client_options();
  options.url = relay.url();
  options.connect_seconds = 1;
  relay.swallow(false, true);
  EXPECT_FALSE(get(options));
  EXPECT_EQ(REST_Problem::unreachable, problem_.kind) << "the handshake cannot end: " << problem_.text;
  relay.swallow(false, false);

  REST_Client client(options);
  REST_Call call;
  call.path = "/k2/r/pools";
  json_spirit::Value reply;
  ASSERT_TRUE(client.call(call, nullptr, reply, problem_)) << problem_.text;
  relay.swallow(false, true);
  call.seconds = 1;
  EXPECT_FALSE(client.call(call, nullptr, reply, problem_));
  EXPECT_EQ(REST_Problem::lost, problem_.kind) << problem_.text;
  EXPECT_TRUE(eventually([&] { return place_.requests().size() == 2; }));
}

TEST_F(Rest_Client_Tls, ends_soon_when_the_caller_gives_up)
{
  place_.listen();
  Relay relay(place_.port());
  REST_Client_Options options = place_.client_options();
  options.url = relay.url();
  REST_Client client(options);
  relay.swallow(false, true);
  std::atomic<bool> stopped{false};
  REST_Call call;
  call.path = "/k2/r/pools";
  call.stopped = &stopped;
  call.retry = {10000, true};
  std::thread caller([&] {
    json_spirit::Value reply;
    EXPECT_FALSE(client.call(call, nullptr, reply, problem_));
  });
  EXPECT_TRUE(eventually([&] { return relay.bytes_up() > 0; }));
  stopped = true;
  caller.join();
  EXPECT_EQ(REST_Problem::stopped, problem_.kind) << problem_.text;
}

TEST_F(Rest_Client_Tls, refuses_an_answer_that_is_too_long)
{
  place_.listen();
  place_.before([](const REST_Request&, REST_Reply& reply) {
    reply.content_type = "application/json";
    reply.raw = "\"" + std::string(100000, 'x') + "\"";
    return true;
  });
  REST_Client client(place_.client_options());
  REST_Call call;
  call.path = "/k2/r/pools";
  json_spirit::Value reply;
  call.most_answer_bytes = 100002;
  EXPECT_TRUE(client.call(call, nullptr, reply, problem_)) << problem_.text;
  call.most_answer_bytes = 100001;
  EXPECT_FALSE(client.call(call, nullptr, reply, problem_));
  EXPECT_EQ(REST_Problem::unusable, problem_.kind);
  EXPECT_TRUE(says("longer than 100001 bytes")) << problem_.text;
}

TEST_F(Rest_Client_Tls, keeps_its_connection)
{
  place_.listen();
  Relay relay(place_.port());
  REST_Client_Options options = place_.client_options();
  options.url = relay.url();
  REST_Client client(options);
  json_spirit::Value reply;
  for (int i = 0; i < 20; ++i)
    ASSERT_TRUE(client.get("/k2/r/pools", reply, problem_)) << problem_.text;
  EXPECT_FALSE(client.get("/k2/r/nothing", reply, problem_));
  ASSERT_TRUE(client.get("/k2/r/pools", reply, problem_)) << problem_.text;
  EXPECT_EQ(1u, relay.connections());
}

// A request with a body must not be sent twice behind the caller's back.
TEST_F(Rest_Client_Tls, reports_a_post_whose_kept_connection_died)
{
  place_.listen();
  Relay relay(place_.port());
  REST_Client_Options options = place_.client_options();
  options.url = relay.url();
  REST_Client client(options);
  json_spirit::Value reply;
  for (int i = 0; i < 5; ++i) {
    ASSERT_TRUE(client.get("/k2/r/pools", reply, problem_)) << problem_.text;
    relay.cut_after_answer(1);
    const unsigned before = place_.count("POST");
    EXPECT_FALSE(client.post("/k2/r/catalogs/oscar/catalogs", json_spirit::Object(), reply, problem_));
    EXPECT_EQ(REST_Problem::lost, problem_.kind) << problem_.text;
    EXPECT_GE(before + 1, place_.count("POST"));
  }
}

TEST_F(Rest_Client_Tls, serves_many_threads_at_once)
{
  place_.listen();
  REST_Client client(place_.client_options());
  std::vector<std::thread> threads;
  std::atomic<unsigned> good{0};
  for (int t = 0; t < 8; ++t)
    threads.emplace_back([&] {
      for (int i = 0; i < 25; ++i) {
        json_spirit::Value reply;
        REST_Problem problem;
        good += client.get("/k2/r/pools", reply, problem) ? 1 : 0;
      }
    });
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_EQ(200u, good);
}
} // namespace

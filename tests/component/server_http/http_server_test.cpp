#include "http_server_fixture.h"

#include "rpc/websocket_server.h"

#include <atomic>
#include <thread>

using namespace kestrel;
using namespace kestrel_test;

TEST_F(Http_Server, answers_several_requests_of_one_connection)
{
  start();
  const auto one = client();
  const Raw_Reply reply = one->ask(http_request("GET", "/a?b=c"));
  EXPECT_EQ(200, reply.status);
  EXPECT_EQ("GET /a?b=c 0", reply.body);
  EXPECT_EQ("no-store", reply.headers.at("cache-control"));
  EXPECT_EQ("POST /a 5", one->ask(http_request("POST", "/a", "", "12345")).body);
  EXPECT_EQ(204, one->ask(http_request("GET", "/empty")).status);
  EXPECT_EQ(500, one->ask(http_request("GET", "/throw")).status);
  EXPECT_EQ("GET /z 0", one->ask(http_request("GET", "/z")).body);
  EXPECT_EQ(1u, server_.counts().accepted);
  EXPECT_EQ(5u, server_.counts().requests);
}

TEST_F(Http_Server, answers_pipelined_requests_in_their_order)
{
  start();
  const auto one = client();
  std::string all;
  for (int i = 0; i < 50; ++i)
    all += http_request(i % 2 ? "GET" : "POST", "/" + std::to_string(i), "",
                        i % 2 ? "" : std::string(size_t(i), 'x'));
  one->send(all);
  for (int i = 0; i < 50; ++i)
    ASSERT_EQ(
        (i % 2 ? "GET /" + std::to_string(i) + " 0" : "POST /" + std::to_string(i) + " " + std::to_string(i)),
        one->receive().body);
}

TEST_F(Http_Server, closes_when_the_client_asks_for_it)
{
  start();
  const auto one = client();
  EXPECT_EQ(200, one->ask(http_request("GET", "/a", "Connection: close\r\n")).status);
  EXPECT_TRUE(one->sees_end());
  const auto old = client();
  EXPECT_EQ(200, old->ask("GET /a HTTP/1.0\r\n\r\n").status);
  EXPECT_TRUE(old->sees_end());
}

TEST_F(Http_Server, a_reply_to_head_has_no_body)
{
  start();
  const auto one = client();
  one->send(http_request("HEAD", "/a") + http_request("GET", "/b"));
  const Raw_Reply head = one->receive(true);
  EXPECT_EQ(200, head.status);
  EXPECT_EQ("9", head.headers.at("content-length"));
  EXPECT_EQ("GET /b 0", one->receive().body);
}

TEST_F(Http_Server, takes_bodies_in_chunks_and_after_a_hundred)
{
  start();
  EXPECT_EQ("hello world", ask("POST /echo HTTP/1.1\r\nHost: a\r\nTransfer-Encoding: chunked\r\n\r\n"
                               "5\r\nhello\r\n6;x=y\r\n world\r\n0\r\n\r\n")
                               .body);
  const auto one = client();
  const Raw_Reply go_on =
      one->ask("POST /echo HTTP/1.1\r\nHost: a\r\nContent-Length: 5\r\nExpect: 100-continue\r\n\r\n");
  EXPECT_EQ(100, go_on.status);
  EXPECT_EQ("12345", one->ask("12345").body);
}

TEST_F(Http_Server, refuses_what_is_no_http)
{
  start();
  for (const char* text :
       {"garbage\r\n\r\n", "GET /a\r\n\r\n", "GET /a HTTP/2.0\r\nHost: a\r\n\r\n",
        "GET  /a HTTP/1.1\r\nHost: a\r\n\r\n", "GET /a HTTP/1.1\r\nHost a\r\n\r\n", "GET /a HTTP/1.1\r\n\r\n",
        "GET /a HTTP/1.1\r\nHost: a\r\nHost: b\r\n\r\n",
        "POST /a HTTP/1.1\r\nHost: a\r\nContent-Length: -1\r\n\r\n",
        "POST /a HTTP/1.1\r\nHost: a\r\nContent-Length: 1\r\nContent-Length: 2\r\n\r\n12",
        "POST /a HTTP/1.1\r\nHost: a\r\nContent-Length: 2\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n",
        "POST /a HTTP/1.1\r\nHost: a\r\nTransfer-Encoding: chunked\r\n\r\nzz\r\n", "\x16\x03\x01\x02\r\n\r\n",
        "GET /a HTTP/1.1\r\nHost: a\r\nX: \x01\r\n\r\n"}) {
    const auto one = client();
    const Raw_Reply reply = one->ask(text);
    EXPECT_EQ(400, reply.status) << text;
    EXPECT_NE(std::string::npos, reply.body.find("\"bad_request\"")) << text;
    one->end_sending();
    EXPECT_TRUE(one->sees_end()) << text;
  }
  EXPECT_TRUE(serves());
}

TEST_F(Http_Server, refuses_large_headers_and_bodies)
{
  options_.limits.body_bytes = 100000;
  start();
  EXPECT_EQ(431, status_of(http_request("GET", "/a", "X: " + std::string(20000, 'x') + "\r\n")));
  EXPECT_EQ(431, status_of(http_request("GET", "/" + std::string(20000, 'x'))));
  std::string many;
  for (int i = 0; i < 5000; ++i)
    many += "X" + std::to_string(i) + ": y\r\n";
  EXPECT_EQ(431, status_of(http_request("GET", "/a", many)));
  EXPECT_EQ(200, status_of(http_request("POST", "/a", "", std::string(100000, 'x'))));
  EXPECT_EQ(413, status_of(http_request("POST", "/a", "", std::string(100001, 'x'))));
  EXPECT_EQ(413, status_of("POST /a HTTP/1.1\r\nHost: a\r\nContent-Length: 99999999999999\r\n\r\n"));
  std::string chunks = "POST /a HTTP/1.1\r\nHost: a\r\nTransfer-Encoding: chunked\r\n\r\n";
  for (int i = 0; i < 11; ++i)
    chunks += "2710\r\n" + std::string(10000, 'x') + "\r\n";
  EXPECT_EQ(413, status_of(chunks));
  EXPECT_TRUE(serves());
}

TEST_F(Http_Server, a_client_that_goes_on_sending_still_gets_its_answer)
{
  options_.limits.body_bytes = 1000;
  start();
  const auto one = client();
  one->send("POST /a HTTP/1.1\r\nHost: a\r\nContent-Length: 4000000\r\n\r\n");
  one->send(std::string(4000000, 'x'));
  EXPECT_EQ(413, one->receive().status);
}

TEST_F(Http_Server, asks_the_gate_before_a_large_body)
{
  options_.limits.unchecked_body_bytes = 10;
  server_.set_body_gate([](REST_Request& request, const std::string&) {
    return request.headers.count("x-key") ? REST_Reply() : rest_error(401, "unauthorized", "no");
  });
  start();
  EXPECT_EQ(200, status_of(http_request("POST", "/a", "", "1234567890")));
  EXPECT_EQ(401, status_of(http_request("POST", "/a", "", "12345678901")));
  EXPECT_EQ(401, status_of("POST /a HTTP/1.1\r\nHost: a\r\nTransfer-Encoding: chunked\r\n\r\n"));
  EXPECT_EQ("12345678901", ask(http_request("POST", "/echo", "X-Key: 1\r\n", "12345678901")).body);
  const auto one = client();
  EXPECT_EQ(
      401,
      one->ask("POST /a HTTP/1.1\r\nHost: a\r\nContent-Length: 50\r\nExpect: 100-continue\r\n\r\n").status);
}

TEST_F(Http_Server, slow_clients_are_told_and_cut)
{
  options_.limits.header_msec = 200;
  options_.limits.request_msec = 300;
  options_.limits.idle_msec = 200;
  start();
  const auto silent = client(), header = client(), body = client(), idle = client();
  header->send("GET /a HTTP/1.1\r\nHo");
  body->send("POST /a HTTP/1.1\r\nHost: a\r\nContent-Length: 10\r\n\r\n123");
  EXPECT_EQ(200, idle->ask(http_request("GET", "/a")).status);
  EXPECT_TRUE(silent->sees_end());
  EXPECT_EQ(408, header->receive().status);
  EXPECT_EQ(408, body->receive().status);
  EXPECT_TRUE(idle->sees_end());
  for (const auto* one : {&silent, &header, &body, &idle})
    (*one)->close();
  EXPECT_TRUE(eventually([&] { return server_.counts().open == 0; }));
}

TEST_F(Http_Server, bytes_one_at_a_time_do_not_extend_the_time)
{
  options_.limits.header_msec = 400;
  start();
  const auto one = client();
  // Each byte comes well within the limit, the header as a whole does not.
  std::atomic<bool> ended{false};
  std::thread sender([&] {
    const std::string header = "GET /" + std::string(4000, 'a');
    for (size_t i = 0; i < header.size() && !ended; ++i) {
      if (!one->send(header.substr(i, 1)))
        break;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
  });
  // The reply is looked for on the server's side: the client's own thread is busy sending.
  EXPECT_TRUE(eventually([&] { return server_.counts().requests == 1; }));
  ended = true;
  sender.join();
  EXPECT_EQ(408, one->receive().status);
}

TEST_F(Http_Server, clients_that_leave_cost_nothing)
{
  start();
  for (int i = 0; i < 5; ++i) {
    client()->close(i % 2);
    auto one = client();
    one->send("POST /a HTTP/1.1\r\nHost: a\r\nContent-Length: 10\r\n\r\n123");
    one->close(i % 2);
    one = client();
    one->send("GET /a HT");
    one->close(i % 2);
    one = client();
    one->send(http_request("GET", "/large"));
    one->close(true);
  }
  EXPECT_TRUE(eventually([&] { return server_.counts().open == 0; }));
  EXPECT_TRUE(serves());
}

TEST_F(Http_Server, a_half_closed_client_gets_its_answers)
{
  start();
  const auto one = client();
  one->send(http_request("GET", "/a") + http_request("GET", "/b"));
  one->end_sending();
  EXPECT_EQ("GET /a 0", one->receive().body);
  EXPECT_EQ("GET /b 0", one->receive().body);
  EXPECT_TRUE(one->sees_end());
  const auto cut = client();
  cut->send("POST /a HTTP/1.1\r\nHost: a\r\nContent-Length: 10\r\n\r\n123");
  cut->end_sending();
  EXPECT_EQ(400, cut->receive().status);
}

TEST_F(Http_Server, connections_are_limited_in_all_and_for_each_address)
{
  options_.limits.connections = 4;
  options_.limits.connections_per_address = 3;
  start();
  std::vector<std::unique_ptr<Raw_Client>> clients;
  for (int i = 0; i < 3; ++i) {
    clients.push_back(client());
    EXPECT_EQ(200, clients.back()->ask(http_request("GET", "/a")).status);
  }
  EXPECT_EQ(0, status_of(http_request("GET", "/a")));
  clients.push_back(std::make_unique<Raw_Client>(server_.port(), "127.0.0.2"));
  EXPECT_EQ(200, clients.back()->ask(http_request("GET", "/a")).status);
  Raw_Client third(server_.port(), "127.0.0.3");
  EXPECT_EQ(0, third.ask(http_request("GET", "/a")).status);
  EXPECT_EQ(2u, server_.counts().refused);
  clients.front()->close();
  EXPECT_TRUE(eventually([&] { return server_.counts().open == 3; }));
  EXPECT_TRUE(serves());
}

TEST_F(Http_Server, more_requests_than_may_wait_are_told_to_come_back)
{
  options_.workers = 1;
  options_.limits.queued_requests = 1;
  start();
  const auto first = client(), second = client();
  first->send(http_request("GET", "/wait"));
  wait_for_waiting(1);
  second->send(http_request("GET", "/second"));
  // One runs and one waits: sooner or later the next one finds the queue full.
  std::vector<std::unique_ptr<Raw_Client>> others;
  bool refused = false;
  for (int i = 0; i < 20 && !refused; ++i) {
    others.push_back(client());
    others.back()->send(http_request("GET", "/other"));
    refused = eventually([&] { return server_.counts().requests >= 1; });
  }
  EXPECT_TRUE(refused);
  release();
  EXPECT_EQ(200, first->receive().status);
}

TEST_F(Http_Server, what_follows_a_reply_runs_once_after_it)
{
  start();
  const auto one = client();
  EXPECT_EQ(200, one->ask(http_request("GET", "/after")).status);
  EXPECT_TRUE(eventually([&] { return followed().size() == 1; }));
  EXPECT_TRUE(followed()[0]);
  EXPECT_EQ(200, one->ask(http_request("GET", "/a")).status);
  EXPECT_EQ(1u, followed().size());
}

TEST_F(Http_Server, what_follows_a_reply_hears_that_it_could_not_be_written)
{
  std::string error;
  ASSERT_TRUE(server_.start(
      options_,
      [this](REST_Request& request, const std::string&) {
        answer(request, "/wait");
        REST_Reply reply = answer(request, "/after");
        reply.raw = std::string(8 << 20, 'x');
        return reply;
      },
      error))
      << error;
  const auto one = client();
  one->send(http_request("GET", "/"));
  wait_for_waiting(1);
  one->close(true);
  release();
  EXPECT_TRUE(eventually([&] { return followed().size() == 1; }));
  EXPECT_FALSE(followed()[0]);
}

TEST_F(Http_Server, a_stop_lets_running_requests_end)
{
  start();
  const auto running = client(), idle = client();
  EXPECT_EQ(200, idle->ask(http_request("GET", "/a")).status);
  running->send(http_request("GET", "/wait"));
  wait_for_waiting(1);
  std::thread stopper([this] { server_.stop(30000); });
  EXPECT_TRUE(idle->sees_end());
  release();
  const Raw_Reply reply = running->receive();
  EXPECT_EQ(200, reply.status);
  EXPECT_EQ("close", reply.headers.at("connection"));
  stopper.join();
  EXPECT_EQ(0u, server_.counts().open);
  EXPECT_FALSE(client()->connected());
}

TEST_F(Http_Server, a_stop_cuts_what_does_not_end_in_time)
{
  start();
  const auto running = client(), half = client();
  running->send(http_request("GET", "/wait"));
  half->send("POST /a HTTP/1.1\r\nHost: a\r\nContent-Length: 10\r\n\r\n123");
  wait_for_waiting(1);
  bool cut = false;
  server_.stop(50, [&] {
    cut = true;
    release();
  });
  EXPECT_TRUE(cut);
  EXPECT_TRUE(half->sees_end());
  EXPECT_EQ(0u, server_.counts().open);
}

TEST_F(Http_Server, a_second_stop_and_a_stop_before_the_start_do_nothing)
{
  HTTP_Server never;
  never.stop(0);
  start();
  server_.stop(0);
  server_.stop(0);
}

TEST_F(Http_Server, listens_without_tls_on_loopback_addresses_only)
{
  std::string error;
  options_.address = "0.0.0.0";
  EXPECT_FALSE(server_.start(options_, nullptr, error));
  EXPECT_EQ("Without TLS the server listens on loopback addresses only, and 0.0.0.0 is none", error);
  options_.address = "localhost";
  EXPECT_FALSE(server_.start(options_, nullptr, error));
}

TEST_F(Http_Server, says_that_a_port_is_taken)
{
  start();
  HTTP_Server second;
  options_.port = server_.port();
  std::string error;
  EXPECT_FALSE(second.start(options_, nullptr, error));
  EXPECT_NE(std::string::npos, error.find("port " + std::to_string(server_.port())));
}

TEST_F(Http_Server, hands_over_connections_that_pass_the_gate)
{
  std::mutex mutex;
  std::vector<Upgraded_Connection> taken;
  server_.add_upgrade(
      "/ws",
      [](REST_Request& request) {
        if (request.headers.count("x-key") == 0)
          return rest_error(401, "unauthorized", "no key");
        REST_Reply reply;
        reply.status = 101;
        return reply;
      },
      [&](Upgraded_Connection connection, const REST_Request&) {
        std::lock_guard<std::mutex> guard(mutex);
        taken.push_back(std::move(connection));
      });
  start();
  const std::string upgrade = "Upgrade: websocket\r\nConnection: Upgrade\r\nSec-WebSocket-Version: 13\r\n"
                              "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n";
  EXPECT_EQ(401, status_of(http_request("GET", "/ws", upgrade)));
  EXPECT_EQ(200, status_of(http_request("GET", "/other", upgrade))) << "an ordinary request elsewhere";
  EXPECT_EQ(400, status_of(http_request("GET", "/ws", upgrade + "X-Key: 1\r\n", "body")));
  EXPECT_EQ(400, status_of(http_request("GET", "/ws", upgrade + "X-Key: 1\r\n") + "more"));
  const auto one = client();
  one->send(http_request("GET", "/ws", upgrade + "X-Key: 1\r\nSec-WebSocket-Protocol: p\r\n"));
  EXPECT_TRUE(eventually([&] {
    std::lock_guard<std::mutex> guard(mutex);
    return taken.size() == 1;
  }));
  EXPECT_EQ("p", taken[0].header("Sec-WebSocket-Protocol"));
  EXPECT_EQ("/ws", taken[0].target());
  EXPECT_EQ(0u, taken[0].address().find("127.0.0.1:"));
  EXPECT_LE(1u, server_.counts().open);
  // The server does not wait for it, but gives its owner the time to let go of it.
  server_.stop(30000, [&] { taken.clear(); });
  EXPECT_TRUE(one->sees_end());
  EXPECT_EQ(0u, server_.counts().open);
}

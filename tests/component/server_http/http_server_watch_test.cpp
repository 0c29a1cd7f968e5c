#include "http_server_fixture.h"

#include "support/clocks.h"

using namespace kestrel;
using namespace kestrel_test;

namespace
{
typedef std::vector<std::string> Names;
constexpr int64_t LONG_MSEC = 20 * 60 * 1000;
} // namespace

TEST_F(Http_Server, a_long_request_is_no_stuck_server_and_all_threads_at_one_for_very_long_are)
{
  Fake_Clock clock;
  Heartbeats heartbeats;
  options_.heartbeats = &heartbeats;
  options_.workers = 2;
  start();
  const auto first = client(), second = client();
  first->send(http_request("GET", "/wait"));
  wait_for_waiting(1);
  clock.advance_msec(LONG_MSEC);
  EXPECT_TRUE(eventually([&] { return heartbeats.stuck().empty(); })) << "another thread is free";
  second->send(http_request("GET", "/wait"));
  wait_for_waiting(2);
  clock.advance_msec(LONG_MSEC);
  EXPECT_TRUE(eventually([&] { return heartbeats.stuck() == Names{"requests"}; }))
      << "the network's threads turn";
  release();
  EXPECT_TRUE(eventually([&] { return heartbeats.stuck().empty(); }));
  server_.stop(0);
  clock.advance_msec(LONG_MSEC);
  EXPECT_TRUE(heartbeats.stuck().empty()) << "what has ended is not missed";
}

TEST_F(Http_Server, a_length_that_two_readers_could_read_in_two_ways_is_refused)
{
  start();
  const std::string second = "GET /smuggled HTTP/1.1\r\nHost: a\r\n\r\n";
  for (const char* headers :
       {"Transfer-Encoding: chunked\r\nContent-Length: 5\r\n",
        "Content-Length: 5\r\nTransfer-Encoding: chunked\r\n",
        "Transfer-Encoding: chunked\r\nTransfer-Encoding: identity\r\n", "Transfer-Encoding : chunked\r\n",
        "Transfer-Encoding: chunked, identity\r\n", "Transfer-Encoding: xchunked\r\n",
        "Content-Length: +5\r\n", "Content-Length: 0x5\r\n", "Content-Length: 5 5\r\n",
        "Content-Length: 5, 6\r\n", "Content-Length: 5\r\n Content-Length: 6\r\n",
        "Content-Length: 99999999999999999999\r\n"}) {
    const auto one = client();
    one->send(std::string("POST /a HTTP/1.1\r\nHost: a\r\n") + headers + "\r\n0\r\n\r\n" + second);
    const Raw_Reply reply = one->receive();
    EXPECT_TRUE(reply.status >= 400 && reply.status < 500) << headers << reply.status;
    one->end_sending();
    EXPECT_TRUE(one->sees_end()) << headers << "what follows is read as no request";
  }
  EXPECT_TRUE(serves());
}

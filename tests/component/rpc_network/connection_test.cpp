#include "network_test.h"
#include "wire.h"

#include <chrono>
#include <thread>

using kestrel::WebSocket_Dial;
using kestrel::WebSocket_Limits;
using kestrel_test::eventually;
using kestrel_test::WebSocket_Listener;

namespace
{
constexpr std::size_t LIMIT_BYTES = std::size_t(16) << 20;

/// A server and one client that the test plays on the wire.
class Served_Wire
{
public:
  Served_Wire(const kestrel_test::Certificate& certificate,
              const WebSocket_Limits& limits = WebSocket_Limits())
  {
    WebSocket_Listener::Options options;
    options.certificate = certificate;
    options.limits = limits;
    listener_ = std::make_unique<WebSocket_Listener>(options);
    wire = Wire::connect(listener_->port());
    EXPECT_TRUE(wire->use_tls());
    EXPECT_EQ(0u, wire->upgrade().find("HTTP/1.1 101 "));
    channel = listener_->channel();
    channel->start(inbox);
  }

  std::unique_ptr<Wire> wire;
  std::shared_ptr<kestrel::WebSocket_Channel> channel;
  const std::shared_ptr<Inbox> inbox = std::make_shared<Inbox>();

private:
  std::unique_ptr<WebSocket_Listener> listener_;
};

class Connection : public Network_Test
{
protected:
  /// Both ends as the product has them.
  struct Ends {
    std::unique_ptr<WebSocket_Listener> listener;
    std::shared_ptr<kestrel::WebSocket_Channel> client, server;
    std::shared_ptr<Inbox> at_client = std::make_shared<Inbox>(), at_server = std::make_shared<Inbox>();
  };
  Ends ends(const WebSocket_Limits& limits = WebSocket_Limits(), bool tls = true)
  {
    Ends result;
    WebSocket_Listener::Options options = listener_options();
    options.limits = limits;
    options.tls = tls;
    result.listener = std::make_unique<WebSocket_Listener>(options);
    WebSocket_Dial dial = to(result.listener->url());
    dial.limits = limits;
    result.client = connect(dial);
    result.server = result.listener->channel();
    result.client->start(result.at_client);
    result.server->start(result.at_server);
    return result;
  }
};
} // namespace

TEST_F(Connection, carries_texts_both_ways_with_and_without_tls)
{
  for (const bool tls : {true, false}) {
    Ends both = ends(WebSocket_Limits(), tls);
    const std::vector<std::string> texts = {"", "{}", "\xe2\x82\xac", std::string(200000, 'x'),
                                            std::string("\0a", 2)};
    for (const std::string& text : texts) {
      EXPECT_TRUE(both.client->send(text));
      EXPECT_TRUE(both.server->send(text));
    }
    for (std::size_t i = 0; i < texts.size(); ++i) {
      EXPECT_EQ(texts[i], both.at_server->text(i));
      EXPECT_EQ(texts[i], both.at_client->text(i));
    }
  }
}

TEST_F(Connection, keeps_what_came_before_its_start)
{
  WebSocket_Listener listener(listener_options());
  const auto client = connect(to(listener.url()));
  const auto server = listener.channel();
  EXPECT_TRUE(server->send("early"));
  EXPECT_TRUE(client->send("bird"));
  const auto at_client = std::make_shared<Inbox>(), at_server = std::make_shared<Inbox>();
  client->start(at_client);
  server->start(at_server);
  EXPECT_EQ("early", at_client->text(0));
  EXPECT_EQ("bird", at_server->text(0));
}

TEST_F(Connection, carries_a_message_of_16_mib_and_none_larger)
{
  Ends both = ends();
  const std::string text(LIMIT_BYTES, 'x');
  EXPECT_FALSE(both.client->send(text + "x"));
  EXPECT_TRUE(both.client->open());
  EXPECT_TRUE(both.client->send(text));
  EXPECT_TRUE(text == both.at_server->text(0));
}

TEST_F(Connection, closes_when_asked_after_sending_what_is_queued)
{
  Ends both = ends();
  for (int i = 0; i < 500; ++i)
    EXPECT_TRUE(both.server->send(std::to_string(i)));
  both.server->close("Enough.");
  EXPECT_FALSE(both.server->open());
  EXPECT_FALSE(both.server->send("more"));
  EXPECT_EQ("499", both.at_client->text(499));
  EXPECT_EQ(both.client->address() + " closed the connection.", both.at_client->end());
  EXPECT_EQ("Enough.", both.at_server->end());
  EXPECT_FALSE(both.client->send("more"));
}

TEST_F(Connection, may_be_closed_by_both_sides_at_once)
{
  for (int i = 0; i < 20; ++i) {
    Ends both = ends();
    std::thread other([&] { both.client->close("a"); });
    both.server->close("b");
    other.join();
    both.at_client->end();
    both.at_server->end();
  }
}

TEST_F(Connection, is_closed_by_its_last_owner)
{
  Ends both = ends();
  both.client.reset();
  EXPECT_NE(std::string::npos, both.at_server->end().find("closed the connection"));
  EXPECT_EQ("This side let go of the connection.", both.at_client->end());
}

TEST_F(Connection, ends_with_the_network_threads)
{
  Ends both = ends();
  threads_.stop();
  EXPECT_TRUE(both.at_client->is_closed());
  EXPECT_NE(std::string::npos, both.at_client->end().find("this side is shutting down"));
  EXPECT_FALSE(both.client->send("x"));
  both.client->close("again");
  EXPECT_NE(std::string::npos, both.at_server->end().find("The connection with "));
}

TEST_F(Connection, tells_of_its_end_at_the_start_when_it_is_over)
{
  WebSocket_Listener listener(listener_options());
  const auto client = connect(to(listener.url()));
  client->close("Changed my mind.");
  threads_.stop();
  const auto inbox = std::make_shared<Inbox>();
  client->start(inbox);
  EXPECT_TRUE(inbox->is_closed());
  EXPECT_EQ("Changed my mind.", inbox->end());
}

TEST_F(Connection, without_a_receiver_goes_on_until_its_owner_lets_go)
{
  Ends both = ends();
  both.at_server.reset();
  EXPECT_TRUE(both.client->send("to nobody"));
  EXPECT_TRUE(both.server->send("still here"));
  EXPECT_EQ("still here", both.at_client->text(0));
}

TEST_F(Connection, ends_when_the_other_side_sends_no_more)
{
  Served_Wire served(authority_.issue());
  EXPECT_TRUE(served.wire->write(Frame{1, "last words"}.bytes()));
  served.wire->half_close();
  EXPECT_EQ("last words", served.inbox->text(0));
  EXPECT_NE(std::string::npos, served.inbox->end().find("was lost")) << served.inbox->end();
  EXPECT_FALSE(served.channel->send("x"));
}

TEST_F(Connection, delivers_no_part_of_a_message_that_was_cut)
{
  Served_Wire served(authority_.issue());
  EXPECT_TRUE(served.wire->write(Frame{1, "whole"}.bytes()));
  Frame cut;
  cut.payload = std::string(1000, 'x');
  cut.claimed_length = 5000;
  EXPECT_TRUE(served.wire->write(cut.bytes()));
  EXPECT_EQ("whole", served.inbox->text(0));
  served.wire->reset();
  EXPECT_NE(std::string::npos, served.inbox->end().find("was lost"));
  EXPECT_EQ(1u, served.inbox->texts().size());
}

TEST_F(Connection, joins_the_frames_of_a_message)
{
  Served_Wire served(authority_.issue());
  Frame first, middle, last;
  first.payload = "one ";
  first.last = false;
  middle.opcode = 9; // a ping may come in between
  middle.payload = "are you there";
  last.opcode = 0;
  last.payload = "message";
  EXPECT_TRUE(served.wire->write(first.bytes() + middle.bytes() + last.bytes()));
  EXPECT_EQ("one message", served.inbox->text(0));
  Frame pong;
  pong.opcode = 10;
  pong.payload = "are you there";
  pong.masked = false;
  EXPECT_EQ(pong.bytes(), served.wire->read_exactly(pong.bytes().size()));
}

TEST_F(Connection, refuses_a_message_that_claims_to_be_too_large)
{
  for (const long long length : {static_cast<long long>(LIMIT_BYTES) + 1, 0x7fffffffffffffffll}) {
    Served_Wire served(authority_.issue());
    Frame huge;
    huge.claimed_length = length;
    EXPECT_TRUE(served.wire->write(huge.bytes()));
    EXPECT_NE(std::string::npos, served.wire->read_some().find("\x03\xf1")) << "closed with code 1009";
    served.wire->half_close();
    EXPECT_NE(std::string::npos, served.inbox->end().find("more than 16777216 bytes")) << served.inbox->end();
  }
}

TEST_F(Connection, refuses_a_message_that_grows_too_large_by_its_frames)
{
  WebSocket_Limits limits;
  limits.message_bytes = 1000;
  Served_Wire served(authority_.issue(), limits);
  Frame part;
  part.payload = std::string(600, 'x');
  part.last = false;
  EXPECT_TRUE(served.wire->write(part.bytes()));
  part.opcode = 0;
  EXPECT_TRUE(served.wire->write(part.bytes()));
  served.wire->read_some();
  served.wire->half_close();
  EXPECT_NE(std::string::npos, served.inbox->end().find("more than 1000 bytes"));
  EXPECT_TRUE(served.inbox->texts().empty());
}

TEST_F(Connection, closes_on_what_is_no_text)
{
  Frame binary, unmasked, unknown, invalid, lonely;
  binary.opcode = 2;
  unmasked.masked = false;
  unknown.opcode = 5;
  invalid.payload = "\xff\xfe";
  lonely.opcode = 0;
  for (const Frame& frame : {binary, unmasked, unknown, invalid, lonely}) {
    WebSocket_Limits limits;
    limits.close_msec = 500;
    Served_Wire served(authority_.issue(), limits);
    EXPECT_TRUE(served.wire->write(frame.bytes()));
    served.wire->read_some();
    served.wire->half_close();
    EXPECT_FALSE(served.inbox->end().empty());
    EXPECT_TRUE(served.inbox->texts().empty());
  }
}

TEST_F(Connection, cuts_off_a_slow_reader_before_its_memory_is_used_up)
{
  WebSocket_Limits limits;
  limits.send_queue_bytes = 4 << 20;
  Served_Wire served(authority_.issue(), limits);
  const std::string text(256 * 1024, 'x');
  std::size_t sent = 0;
  while (served.channel->send(text) && sent < (std::size_t(64) << 20))
    sent += text.size();
  EXPECT_LT(sent, std::size_t(64) << 20) << "what the kernel holds is far less";
  EXPECT_NE(std::string::npos, served.inbox->end().find("because the other side reads too slowly"))
      << served.inbox->end();
  EXPECT_FALSE(served.channel->open());
}

TEST_F(Connection, limits_the_number_of_waiting_messages_too)
{
  WebSocket_Limits limits;
  limits.send_queue_messages = 100;
  Served_Wire served(authority_.issue(), limits);
  EXPECT_TRUE(served.channel->send(std::string(LIMIT_BYTES, 'x'))); // nobody reads it
  EXPECT_TRUE(served.channel->send(std::string(LIMIT_BYTES, 'x')));
  for (int i = 0; i < 200; ++i)
    if (!served.channel->send("x"))
      break;
  EXPECT_NE(std::string::npos, served.inbox->end().find("100 messages wait to be sent"));
}

TEST_F(Connection, gives_up_on_a_message_that_nobody_takes)
{
  WebSocket_Limits limits;
  limits.write_msec = 200;
  Served_Wire served(authority_.issue(), limits);
  EXPECT_TRUE(served.channel->send(std::string(LIMIT_BYTES, 'x')));
  EXPECT_NE(std::string::npos, served.inbox->end().find("took no message for 200 ms")) << served.inbox->end();
}

TEST_F(Connection, asks_a_silent_peer_and_gives_up_on_it)
{
  WebSocket_Limits limits;
  limits.ping_msec = 20;
  limits.dead_msec = 1000;
  Served_Wire served(authority_.issue(), limits);
  for (int i = 0; i < 3; ++i)
    EXPECT_EQ(std::string("\x89\x00", 2), served.wire->read_exactly(2));
  EXPECT_NE(std::string::npos,
            served.inbox->end().find("nothing came from the other side for 1 seconds; check the network"))
      << served.inbox->end();
}

TEST_F(Connection, lives_on_in_silence_while_pings_are_answered)
{
  WebSocket_Limits limits;
  limits.ping_msec = 50;
  limits.dead_msec = 4000;
  Ends both = ends(limits);
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_TRUE(eventually([&] {
    return std::chrono::steady_clock::now() - begin > std::chrono::milliseconds(5000) ||
           both.at_client->is_closed();
  }));
  EXPECT_TRUE(both.client->send("still here"));
  EXPECT_EQ("still here", both.at_server->text(0));
}

TEST_F(Connection, does_not_wait_for_a_good_bye_that_never_comes)
{
  WebSocket_Limits limits;
  limits.close_msec = 50;
  Served_Wire served(authority_.issue(), limits);
  served.channel->close("Over.");
  EXPECT_EQ("Over.", served.inbox->end());
  served.wire->read_to_end();
}

TEST_F(Connection, of_a_server_that_is_cut_in_a_message_ends)
{
  const Wire_Server server([&](Wire& wire) {
    EXPECT_TRUE(wire.serve_tls(authority_.issue()));
    EXPECT_TRUE(wire.accept_upgrade("kestrel-rpc"));
    Frame whole, cut;
    whole.masked = cut.masked = false;
    whole.payload = "whole";
    cut.payload = "ha";
    cut.claimed_length = 4;
    wire.write(whole.bytes() + cut.bytes());
    wire.half_close();
    wire.read_to_end();
  });
  const auto channel = connect(to(server.url()));
  const auto inbox = std::make_shared<Inbox>();
  channel->start(inbox);
  EXPECT_EQ("whole", inbox->text(0));
  EXPECT_NE(std::string::npos, inbox->end().find("was lost"));
  EXPECT_EQ(1u, inbox->texts().size());
}

TEST_F(Connection, comes_about_for_fifty_clients)
{
  WebSocket_Listener listener(listener_options());
  std::vector<std::shared_ptr<kestrel::WebSocket_Channel>> clients;
  std::vector<std::shared_ptr<Inbox>> inboxes;
  for (std::size_t i = 0; i < 50; ++i) {
    clients.push_back(connect(to(listener.url())));
    inboxes.push_back(std::make_shared<Inbox>());
    clients.back()->start(inboxes.back());
    EXPECT_TRUE(listener.channel(i)->send(std::to_string(i)));
  }
  for (std::size_t i = 0; i < 50; ++i)
    EXPECT_EQ(std::to_string(i), inboxes[i]->text(0));
}

#include "network_test.h"
#include "wire.h"

#include "rpc/tls.h"
#include "support/temp_dir.h"

#include <atomic>
#include <map>
#include <thread>

using kestrel::WebSocket_Dial;
using kestrel::WebSocket_Failure;
using kestrel_test::Certificate_Wish;
using kestrel_test::WebSocket_Listener;

namespace
{
class Dial : public Network_Test
{
protected:
  /// Tries a server with such a certificate.
  WebSocket_Failure refused_certificate(const Certificate_Wish& wish)
  {
    WebSocket_Listener listener(listener_options(wish));
    where_ = "127.0.0.1:" + std::to_string(listener.port());
    return refused(to(listener.url()));
  }

  std::string where_;
};
} // namespace

TEST_F(Dial, connects_and_shows_the_server_its_headers)
{
  std::string header, target, protocol;
  WebSocket_Listener::Options options = listener_options();
  options.gate = [&](const kestrel::Upgraded_Connection& connection) {
    header = connection.header("X-Key");
    target = connection.target();
    protocol = connection.header("Sec-WebSocket-Protocol");
    return 101;
  };
  WebSocket_Listener listener(options);
  WebSocket_Dial dial = to(listener.url());
  dial.headers = {{"X-Key", "secret.1"}};
  const auto channel = connect(dial);
  ASSERT_TRUE(channel);
  EXPECT_EQ("secret.1", header);
  EXPECT_EQ("/k2/w/agent", target);
  EXPECT_EQ("kestrel-rpc", protocol);
  EXPECT_EQ("127.0.0.1:" + std::to_string(listener.port()), channel->address());
  EXPECT_EQ(0u, listener.channel()->address().find("127.0.0.1:"));
}

TEST_F(Dial, reads_the_ca_from_a_file_too)
{
  const kestrel_test::Temp_Dir dir;
  WebSocket_Listener listener(listener_options());
  WebSocket_Dial dial = to(listener.url());
  dial.tls.ca_pem.clear();
  dial.tls.ca_file = dir.write("ca.crt", authority_.ca_pem());
  EXPECT_TRUE(connect(dial));
  dial.tls.ca_file = dir / "missing";
  EXPECT_EQ(WebSocket_Failure::bad_options, refused(dial).kind);
  dial.tls.ca_file.clear();
  EXPECT_EQ(WebSocket_Failure::certificate, refused(dial).kind) << "the system's list does not hold it";
  dial.tls.ca_pem = "no certificate";
  EXPECT_EQ(WebSocket_Failure::bad_options, refused(dial).kind);
}

TEST_F(Dial, without_tls_reaches_only_this_host)
{
  WebSocket_Listener::Options options;
  options.tls = false;
  WebSocket_Listener listener(options);
  EXPECT_TRUE(connect(to(listener.url())));
  const WebSocket_Failure failure = refused(to("http://192.0.2.1:7480/k2/w/agent"));
  EXPECT_EQ(WebSocket_Failure::bad_options, failure.kind);
  EXPECT_EQ("192.0.2.1:7480 is another host, which is only reached over https; correct the address.",
            failure.message);
}

TEST_F(Dial, refuses_what_is_no_address_of_a_server)
{
  for (const char* url : {"", "127.0.0.1", "ftp://a/", "https://", "https:///x", "https://a:0/",
                          "https://a:65536/", "https://a:x/", "https://user:pw@host/", "https://a b/",
                          "https://a/x y", "https://[::1/", "https://[::1]x/", "https://a:1/\r\nX: y"}) {
    const WebSocket_Failure failure = refused(to(url));
    EXPECT_EQ(WebSocket_Failure::bad_options, failure.kind) << url;
    EXPECT_FALSE(failure.message.empty());
  }
  for (const char* value : {"a\r\nb", "\n", "\x01"}) {
    WebSocket_Dial dial = to("https://127.0.0.1:1/");
    dial.headers = {{"X-Key", value}};
    const WebSocket_Failure failure = refused(dial);
    EXPECT_EQ(WebSocket_Failure::bad_options, failure.kind);
  }
}

TEST_F(Dial, tells_of_a_name_without_address)
{
  // No name server is asked for a label of more than 63 letters.
  const std::string name = std::string(70, 'x') + ".invalid";
  WebSocket_Dial dial = to("https://" + name + ":1/");
  dial.resolve_msec = 60 * 1000;
  const WebSocket_Failure failure = refused(dial);
  EXPECT_EQ(WebSocket_Failure::not_found, failure.kind) << failure.message;
  EXPECT_EQ(0u, failure.message.find("The name " + name + " has no address"));
}

TEST_F(Dial, tells_of_a_port_that_nobody_listens_on)
{
  std::string url;
  {
    WebSocket_Listener listener(listener_options());
    url = listener.url();
  }
  const WebSocket_Failure failure = refused(to(url));
  EXPECT_EQ(WebSocket_Failure::unreachable, failure.kind);
  EXPECT_NE(std::string::npos, failure.message.find("accepts no connection (Connection refused)"))
      << failure.message;
}

TEST_F(Dial, refuses_a_certificate_that_has_expired)
{
  Certificate_Wish wish;
  wish.valid_to_seconds = -3600;
  const WebSocket_Failure failure = refused_certificate(wish);
  EXPECT_EQ(WebSocket_Failure::certificate, failure.kind);
  EXPECT_EQ("The certificate of " + where_ + " has expired; renew it on the server.", failure.message);
}

TEST_F(Dial, refuses_a_certificate_that_is_not_valid_yet)
{
  Certificate_Wish wish;
  wish.valid_from_seconds = 3600;
  const WebSocket_Failure failure = refused_certificate(wish);
  EXPECT_EQ(WebSocket_Failure::certificate, failure.kind);
  EXPECT_NE(std::string::npos, failure.message.find("is not valid yet")) << failure.message;
}

TEST_F(Dial, refuses_a_certificate_for_another_name)
{
  Certificate_Wish wish;
  wish.names = {"elsewhere.example"};
  wish.addresses = {"127.0.0.2"};
  const WebSocket_Failure failure = refused_certificate(wish);
  EXPECT_EQ(WebSocket_Failure::certificate, failure.kind);
  EXPECT_EQ("The certificate of " + where_ +
                " is not for the name 127.0.0.1; use a name that it holds, or renew it with this one.",
            failure.message);
}

TEST_F(Dial, checks_the_name_that_was_given_instead)
{
  Certificate_Wish wish;
  wish.names = {"backup.example"};
  wish.addresses.clear();
  WebSocket_Listener listener(listener_options(wish));
  WebSocket_Dial dial = to(listener.url());
  dial.tls.server_name = "backup.example";
  EXPECT_TRUE(connect(dial));
  dial.tls.server_name = "other.example";
  EXPECT_EQ(WebSocket_Failure::certificate, refused(dial).kind);
}

TEST_F(Dial, refuses_a_certificate_of_another_ca)
{
  WebSocket_Listener::Options options;
  options.certificate = kestrel_test::Certificate_Authority("test CA").issue();
  WebSocket_Listener listener(options);
  const WebSocket_Failure failure = refused(to(listener.url()));
  EXPECT_EQ(WebSocket_Failure::certificate, failure.kind);
  EXPECT_NE(std::string::npos, failure.message.find("is not signed by the CA that this host trusts"))
      << failure.message;
}

TEST_F(Dial, tells_why_the_server_refused)
{
  int status = 0;
  WebSocket_Listener::Options options = listener_options();
  options.gate = [&](const kestrel::Upgraded_Connection&) { return status; };
  WebSocket_Listener listener(options);
  const std::string where = "127.0.0.1:" + std::to_string(listener.port());
  for (const auto& [answer, text] : std::map<int, std::string>{
           {401, " does not accept the access key (status 401); enroll this host again."},
           {403, " does not let this host in (status 403); ask its administrator."},
           {404, " offers no such service (status 404); check the address, and the versions of both sides."},
           {503, " is too busy for another connection (status 503); try again later."},
           {418, " refused the connection with status 418; see the server's log."}}) {
    status = answer;
    const WebSocket_Failure failure = refused(to(listener.url()));
    EXPECT_EQ(WebSocket_Failure::refused, failure.kind);
    EXPECT_EQ(answer, failure.http_status);
    EXPECT_EQ(where + text, failure.message);
  }
  status = 200;
  EXPECT_EQ(WebSocket_Failure::protocol, refused(to(listener.url())).kind);
}

TEST_F(Dial, tells_of_a_server_that_speaks_no_tls)
{
  const Wire_Server server([](Wire& wire) {
    wire.write("220 mail.example ESMTP\r\n");
    wire.read_to_end();
  });
  const WebSocket_Failure failure = refused(to(server.url()));
  EXPECT_EQ(WebSocket_Failure::tls, failure.kind);
  EXPECT_NE(std::string::npos, failure.message.find("The TLS handshake with 127.0.0.1")) << failure.message;
}

TEST_F(Dial, tells_of_a_server_that_answers_garbage)
{
  std::string garbage;
  const Wire_Server server([&](Wire& wire) {
    EXPECT_TRUE(wire.serve_tls(authority_.issue()));
    wire.read_header();
    wire.write(garbage);
    wire.half_close();
    wire.read_to_end();
  });
  for (const char* text :
       {"\x16\x03 what", "HTTP/1.1 101 Switching Protocols\r\n\r\n", "HTTP/1.1 101\r\nUpgrade: x\r\n\r\n",
        "SSH-2.0-x\r\n\r\n", "HTTP/9.9 999 x\r\n\r\n"}) {
    garbage = text;
    const WebSocket_Failure failure = refused(to(server.url()));
    EXPECT_EQ(WebSocket_Failure::protocol, failure.kind) << text << ": " << failure.message;
  }
  garbage = "HTTP/1.1 200 OK\r\nX: " + std::string(100000, 'x');
  EXPECT_EQ(WebSocket_Failure::protocol, refused(to(server.url())).kind);
}

TEST_F(Dial, wants_the_sub_protocol)
{
  std::string protocol;
  const Wire_Server server([&](Wire& wire) {
    EXPECT_TRUE(wire.serve_tls(authority_.issue()));
    EXPECT_TRUE(wire.accept_upgrade(protocol));
    wire.read_to_end();
  });
  for (const char* answer : {"", "chat"}) {
    protocol = answer;
    const WebSocket_Failure failure = refused(to(server.url()));
    EXPECT_EQ(WebSocket_Failure::protocol, failure.kind);
    EXPECT_NE(std::string::npos, failure.message.find("does not speak kestrel-rpc")) << failure.message;
  }
  protocol = "kestrel-rpc";
  WebSocket_Dial dial = to(server.url());
  dial.limits.close_msec = 50; // this server does not say good-bye
  EXPECT_TRUE(connect(dial));
}

TEST_F(Dial, tells_of_a_server_that_closes_without_an_answer)
{
  const Wire_Server server([&](Wire& wire) {
    EXPECT_TRUE(wire.serve_tls(authority_.issue()));
    wire.read_header();
    wire.reset();
  });
  const WebSocket_Failure failure = refused(to(server.url()));
  EXPECT_EQ(WebSocket_Failure::unreachable, failure.kind) << failure.message;
}

TEST_F(Dial, does_not_wait_long_for_a_server_that_never_answers)
{
  const Wire_Server mute([](Wire& wire) { wire.read_to_end(); });
  WebSocket_Dial dial = to(mute.url());
  dial.tls_msec = 50;
  WebSocket_Failure failure = refused(dial);
  EXPECT_EQ(WebSocket_Failure::timed_out, failure.kind);
  EXPECT_NE(std::string::npos, failure.message.find("did not finish the TLS handshake within 50 ms"))
      << failure.message;

  const Wire_Server polite([&](Wire& wire) {
    EXPECT_TRUE(wire.serve_tls(authority_.issue()));
    wire.read_to_end();
  });
  dial = to(polite.url());
  dial.upgrade_msec = 50;
  failure = refused(dial);
  EXPECT_EQ(WebSocket_Failure::timed_out, failure.kind);
  EXPECT_NE(std::string::npos, failure.message.find("did not answer within 50 ms")) << failure.message;
}

TEST_F(Dial, can_be_given_up)
{
  std::atomic<int> arrived{0};
  const Wire_Server mute([&](Wire& wire) {
    ++arrived;
    wire.read_to_end();
  });
  std::thread giving_up([&] {
    EXPECT_TRUE(kestrel_test::eventually([&] { return arrived == 1; }));
    client_.cancel();
  });
  WebSocket_Dial dial = to(mute.url());
  dial.tls_msec = 10 * 60 * 1000;
  EXPECT_EQ(WebSocket_Failure::cancelled, refused(dial).kind);
  EXPECT_EQ(WebSocket_Failure::cancelled, refused(dial).kind) << "and so are later ones";
  giving_up.join();
}

TEST_F(Dial, ends_when_the_network_threads_do)
{
  std::atomic<int> arrived{0};
  const Wire_Server mute([&](Wire& wire) {
    ++arrived;
    wire.read_to_end();
  });
  std::thread stopping([&] {
    EXPECT_TRUE(kestrel_test::eventually([&] { return arrived == 1; }));
    threads_.stop();
  });
  WebSocket_Dial dial = to(mute.url());
  dial.tls_msec = 10 * 60 * 1000;
  EXPECT_EQ(WebSocket_Failure::cancelled, refused(dial).kind);
  stopping.join();
}

TEST_F(Dial, a_server_refuses_old_versions_of_tls)
{
  WebSocket_Listener listener(listener_options());
  EXPECT_FALSE(Wire::connect(listener.port())->use_tls(TLS1_1_VERSION));
  EXPECT_TRUE(Wire::connect(listener.port())->use_tls(TLS1_2_VERSION));
}

TEST(TLS_Server_Context, names_the_file_that_cannot_be_used)
{
  const kestrel_test::Temp_Dir dir;
  const kestrel_test::Certificate_Authority authority;
  const kestrel_test::Certificate first = authority.issue(), second = authority.issue();
  kestrel::TLS_Server_Options options;
  options.certificate_file = dir / "server.crt";
  options.key_file = dir / "server.key";
  std::string error;
  EXPECT_FALSE(kestrel::TLS_Server_Context::create(options, error));
  EXPECT_EQ(0u, error.find("The certificate " + options.certificate_file + " cannot be read: ")) << error;
  dir.write("server.crt", first.certificate_pem);
  EXPECT_FALSE(kestrel::TLS_Server_Context::create(options, error));
  EXPECT_EQ(0u, error.find("The key " + options.key_file + " cannot be used")) << error;
  dir.write("server.key", second.key_pem);
  EXPECT_FALSE(kestrel::TLS_Server_Context::create(options, error)) << "it belongs to another certificate";
  dir.write("server.key", first.key_pem);
  const auto context = kestrel::TLS_Server_Context::create(options, error);
  ASSERT_TRUE(context) << error;

  const auto before = context->context();
  dir.write("server.key", "garbage");
  EXPECT_FALSE(context->reload(error));
  EXPECT_EQ(before, context->context());
  dir.write("server.crt", second.certificate_pem);
  dir.write("server.key", second.key_pem);
  EXPECT_TRUE(context->reload(error)) << error;
  EXPECT_NE(before, context->context());
}

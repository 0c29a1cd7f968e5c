#include "network_test.h"
#include "wire.h"

#include "rpc/http_session.h"

#include <cerrno>

using kestrel_test::WebSocket_Listener;

namespace
{
class HTTP_Session_TLS : public Network_Test
{
protected:
  HTTP_Session_TLS() { use_ca(authority_.ca_pem()); }
  ~HTTP_Session_TLS() override { WebSocket_Options::set(WebSocket_Options()); }

  static void use_ca(const std::string& ca_pem)
  {
    WebSocket_Options options;
    options.ca_pem = ca_pem;
    WebSocket_Options::set(options);
  }
  /// errno of an attempt; 0 when it succeeded.
  static int attempt(unsigned short port)
  {
    errno = 0;
    const std::unique_ptr<HTTP_Session> session = HTTP_Session_Factory::create("127.0.0.1", port, true);
    return session ? 0 : errno;
  }
};
} // namespace

TEST_F(HTTP_Session_TLS, succeeds_with_the_registered_ca)
{
  WebSocket_Listener listener(listener_options());
  EXPECT_EQ(0, attempt(listener.port()));
}

TEST_F(HTTP_Session_TLS, fails_when_the_certificate_is_refused)
{
  kestrel_test::Certificate_Wish wish;
  wish.valid_to_seconds = -1;
  WebSocket_Listener expired(listener_options(wish));
  EXPECT_EQ(EACCES, attempt(expired.port()));
  WebSocket_Listener good(listener_options());
  use_ca(kestrel_test::Certificate_Authority("other").ca_pem());
  EXPECT_EQ(EACCES, attempt(good.port()));
  use_ca("garbage");
  EXPECT_EQ(EPROTO, attempt(good.port()));
}

TEST_F(HTTP_Session_TLS, fails_when_the_server_speaks_no_tls_or_goes)
{
  const Wire_Server talker([](Wire& wire) {
    wire.write("hello\r\n");
    wire.read_to_end();
  });
  EXPECT_EQ(EPROTO, attempt(talker.port()));
  const Wire_Server leaver([](Wire& wire) { wire.reset(); });
  EXPECT_NE(0, attempt(leaver.port()));
}

TEST_F(HTTP_Session_TLS, connects_without_a_handshake_when_no_ca_is_registered)
{
  use_ca("");
  const Wire_Server mute([](Wire& wire) { wire.read_to_end(); });
  EXPECT_EQ(0, attempt(mute.port()));
}

#include "rpc/http_session.h"

#include "base/descriptor.h"

#include <gtest/gtest.h>

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace
{
/// A port of the loopback address that nobody else gets.
class Loopback_Port
{
public:
  explicit Loopback_Port(bool listening) : socket_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
  {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    EXPECT_EQ(0, ::bind(socket_.get(), reinterpret_cast<sockaddr*>(&address), length));
    if (listening) {
      EXPECT_EQ(0, ::listen(socket_.get(), 1));
    }
    EXPECT_EQ(0, ::getsockname(socket_.get(), reinterpret_cast<sockaddr*>(&address), &length));
    number_ = ntohs(address.sin_port);
  }
  unsigned short number() const { return number_; }

private:
  kestrel::Auto_Fd socket_;
  unsigned short number_ = 0;
};

struct Scoped_Server_Options {
  explicit Scoped_Server_Options(const WebSocket_Options& options) { WebSocket_Options::set(options); }
  ~Scoped_Server_Options() { WebSocket_Options::set(WebSocket_Options()); }
};
} // namespace

TEST(HTTP_Session, of_a_host_without_a_server_is_local)
{
  EXPECT_EQ("", WebSocket_Options::instance().host);
  const std::unique_ptr<HTTP_Session> session = HTTP_Session_Factory::create("", 0, false);
  ASSERT_TRUE(session);
  EXPECT_FALSE(session->remote());
}

TEST(HTTP_Session, connects_to_the_server)
{
  const Loopback_Port port(true);
  for (const bool ssl : {false, true}) {
    const std::unique_ptr<HTTP_Session> session =
        HTTP_Session_Factory::create("127.0.0.1", port.number(), ssl);
    ASSERT_TRUE(session);
    EXPECT_TRUE(session->remote());
  }
}

TEST(HTTP_Session, is_none_when_nobody_listens)
{
  const Loopback_Port port(false);
  EXPECT_FALSE(HTTP_Session_Factory::create("127.0.0.1", port.number(), false));
}

TEST(WebSocket_Options, are_those_that_the_host_process_set)
{
  WebSocket_Options options;
  options.host = "server-1";
  options.port = 8443;
  options.ssl = true;
  options.cookie = "c";
  const Scoped_Server_Options scope(options);
  const WebSocket_Options found = WebSocket_Options::instance();
  EXPECT_EQ("server-1", found.host);
  EXPECT_EQ(8443, found.port);
  EXPECT_TRUE(found.ssl);
  EXPECT_EQ("c", found.cookie);
}

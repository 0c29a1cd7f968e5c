#include "rpc/http_session.h"

#include "support/loopback.h"

#include <gtest/gtest.h>

using kestrel_test::Loopback_Listener;

namespace
{
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
  const Loopback_Listener port;
  for (const bool ssl : {false, true}) {
    const std::unique_ptr<HTTP_Session> session = HTTP_Session_Factory::create("127.0.0.1", port.port(), ssl);
    ASSERT_TRUE(session);
    EXPECT_TRUE(session->remote());
  }
}

TEST(HTTP_Session, is_none_when_nobody_listens)
{
  const Loopback_Listener port(0, false);
  EXPECT_FALSE(HTTP_Session_Factory::create("127.0.0.1", port.port(), false));
}

TEST(HTTP_Session, tries_every_address_of_a_name)
{
  // On most hosts the first address of this name is of the other protocol.
  const Loopback_Listener port;
  EXPECT_TRUE(HTTP_Session_Factory::create("localhost", port.port(), false));
  const Loopback_Listener silent(0, false);
  EXPECT_FALSE(HTTP_Session_Factory::create("localhost", silent.port(), false));
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

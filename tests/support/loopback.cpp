#include "support/loopback.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <sys/socket.h>

namespace kestrel_test
{
sockaddr_in loopback_address(unsigned short port)
{
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(port);
  return address;
}

Loopback_Listener::Loopback_Listener(int backlog, bool listening)
    : socket_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
{
  sockaddr_in address = loopback_address(0);
  socklen_t length = sizeof address;
  EXPECT_EQ(0, ::bind(socket_.get(), reinterpret_cast<sockaddr*>(&address), length));
  if (listening) {
    EXPECT_EQ(0, ::listen(socket_.get(), backlog));
  }
  EXPECT_EQ(0, ::getsockname(socket_.get(), reinterpret_cast<sockaddr*>(&address), &length));
  port_ = ntohs(address.sin_port);
}
} // namespace kestrel_test

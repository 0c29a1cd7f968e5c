#pragma once

#include "base/descriptor.h"

#include <netinet/in.h>

namespace kestrel_test
{
sockaddr_in loopback_address(unsigned short port);

/// A port of the loopback address that nobody else gets, and by default somebody who listens on it. One
/// thread.
class Loopback_Listener
{
public:
  explicit Loopback_Listener(int backlog = 1, bool listening = true);

  int fd() const { return socket_.get(); }
  unsigned short port() const { return port_; }

private:
  kestrel::Auto_Fd socket_;
  unsigned short port_ = 0;
};
} // namespace kestrel_test

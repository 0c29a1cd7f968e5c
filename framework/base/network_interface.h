#pragma once

#include <ace/INET_Addr.h>

#include <string>
#include <vector>

namespace kestrel
{
struct Network_Interface {
  std::string name;
  ACE_INET_Addr address; ///< port 0
};
} // namespace kestrel

/// The IPv4 addresses of this host's interfaces: one entry an address, loopback included, ordered by
/// interface index and then as the kernel lists them. Taken once, by the constructor; an object without
/// entries is what remains when the kernel gives none (one LM_ERROR line says why).
/// Threads: as a container.
class Network_Interface_Enumerator
{
public:
  typedef std::vector<kestrel::Network_Interface>::const_iterator const_iterator;

  Network_Interface_Enumerator();

  const_iterator begin() const { return interfaces_.begin(); }
  const_iterator end() const { return interfaces_.end(); }
  size_t size() const { return interfaces_.size(); }

private:
  std::vector<kestrel::Network_Interface> interfaces_;
};

/// An address as text: the numeric address, with ":port" behind it when asked. Never asks a name server.
class ACE_Addr_String
{
public:
  ACE_Addr_String(const ACE_INET_Addr& address, bool with_port);
  const char* c_str() const { return text_.c_str(); }

private:
  std::string text_;
};

#include "base/network_interface.h"

#include "base/scope_guard.h"

#include <ace/Log_Msg.h>

#include <algorithm>
#include <cerrno>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <utility>

Network_Interface_Enumerator::Network_Interface_Enumerator()
{
  ifaddrs* list = nullptr;
  if (::getifaddrs(&list) != 0) {
    ACE_ERROR((LM_ERROR, "Failed to list network interfaces, errno=%d, %m\n", errno));
    return;
  }
  kestrel::Scope_Guard free_list([&] { ::freeifaddrs(list); });

  typedef std::pair<unsigned, kestrel::Network_Interface> Indexed;
  std::vector<Indexed> found;
  for (const ifaddrs* entry = list; entry; entry = entry->ifa_next) {
    if (!entry->ifa_addr || entry->ifa_addr->sa_family != AF_INET)
      continue;
    kestrel::Network_Interface interface;
    interface.name = entry->ifa_name;
    interface.address.set(reinterpret_cast<const sockaddr_in*>(entry->ifa_addr), sizeof(sockaddr_in));
    found.emplace_back(::if_nametoindex(entry->ifa_name), interface);
  }
  std::stable_sort(found.begin(), found.end(),
                   [](const Indexed& a, const Indexed& b) { return a.first < b.first; });
  for (const Indexed& entry : found)
    interfaces_.push_back(entry.second);
}

ACE_Addr_String::ACE_Addr_String(const ACE_INET_Addr& address, bool with_port)
{
  char buffer[INET6_ADDRSTRLEN + 1];
  const char* const text = address.get_host_addr(buffer, sizeof buffer);
  text_ = text ? text : "";
  if (with_port)
    text_ += ":" + std::to_string(address.get_port_number());
}

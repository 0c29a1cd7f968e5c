#pragma once

#include <string>
#include <vector>

namespace kestrel_test
{
/// While it lives, the interfaces that this program is shown are these: getifaddrs(), freeifaddrs() and
/// if_nametoindex() of this program stand in for the C library's, for the product too. What makes a list out
/// of them is the product's own code, on a host of whatever addresses. Without such an object the C library
/// answers.
/// Threads: made and ended while no other thread asks for interfaces; at most one at a time.
class Given_Interfaces
{
public:
  struct Entry {
    std::string name;
    unsigned index; ///< of the interface: the same for all entries of one name
    std::string address;
  };

  /// In the order in which the kernel lists them.
  explicit Given_Interfaces(const std::vector<Entry>& entries);
  ~Given_Interfaces();
  Given_Interfaces(const Given_Interfaces&) = delete;
  Given_Interfaces& operator=(const Given_Interfaces&) = delete;

  /// How many lists were taken so far: a test that nobody asked proves nothing.
  unsigned taken() const;
};
} // namespace kestrel_test

#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace kestrel_test
{
/// The place of a virtual function in its class's table. Pointers to virtual members hold one plus the offset
/// (Itanium ABI, x86). A destructor takes the two places 0 and 1.
template <class Member> size_t slot(Member member)
{
  uintptr_t offset = 0;
  static_assert(sizeof member >= sizeof offset, "a pointer to a member begins with the offset");
  ::memcpy(&offset, &member, sizeof offset);
  return (offset - 1) / sizeof(void*);
}
} // namespace kestrel_test

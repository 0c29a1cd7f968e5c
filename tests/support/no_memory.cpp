#include "support/no_memory.h"

#include <new>

namespace
{
thread_local unsigned good_left = 0;
thread_local unsigned bad_left = 0;
} // namespace

// Replaces the library's in every program that uses this class. Memory still comes from the throwing form,
// which the sanitizers know.
void* operator new(std::size_t size, const std::nothrow_t&) noexcept
{
  if (bad_left > 0) {
    if (good_left == 0) {
      --bad_left;
      return nullptr;
    }
    --good_left;
  }
  try {
    return ::operator new(size);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

namespace kestrel_test
{
No_Memory::No_Memory(unsigned good, unsigned bad) : bad_(bad)
{
  good_left = good;
  bad_left = bad;
}

No_Memory::~No_Memory()
{
  bad_left = 0;
}

bool No_Memory::refused() const
{
  return bad_left < bad_;
}
} // namespace kestrel_test

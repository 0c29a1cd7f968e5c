#include "freed_memory.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <malloc.h>
#include <new>

namespace
{
/// Not in the heap.
char wanted[128];
std::atomic<std::size_t> wanted_bytes{0}; ///< 0: nobody watches
std::atomic<unsigned> found_blocks{0};

/// Byte by byte, as what lies in a block that is given back is nobody's any more, whatever a sanitizer makes of it.
__attribute__((no_sanitize("address", "thread", "undefined"))) bool holds(const char* block, std::size_t size,
                                                                           std::size_t length)
{
  for (std::size_t begin = 0; begin + length <= size; ++begin) {
    std::size_t same = 0;
    while (same < length && block[begin + same] == wanted[same])
      ++same;
    if (same == length)
      return true;
  }
  return false;
}

void give_back(void* block)
{
  const std::size_t length = wanted_bytes;
  if (block && length != 0 && holds(static_cast<const char*>(block), ::malloc_usable_size(block), length))
    ++found_blocks;
  std::free(block);
}
} // namespace

void* operator new(std::size_t size)
{
  void* const block = std::malloc(size == 0 ? 1 : size);
  if (!block)
    throw std::bad_alloc();
  return block;
}
void* operator new[](std::size_t size)
{
  return operator new(size);
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept
{
  return std::malloc(size == 0 ? 1 : size);
}
void* operator new[](std::size_t size, const std::nothrow_t& none) noexcept
{
  return operator new(size, none);
}
void operator delete(void* block) noexcept
{
  give_back(block);
}
void operator delete(void* block, const std::nothrow_t&) noexcept
{
  give_back(block);
}
void operator delete[](void* block, const std::nothrow_t&) noexcept
{
  give_back(block);
}
void operator delete[](void* block) noexcept
{
  give_back(block);
}
void operator delete(void* block, std::size_t) noexcept
{
  give_back(block);
}
void operator delete[](void* block, std::size_t) noexcept
{
  give_back(block);
}

namespace kestrel_test
{
Freed_Memory_Watch::Freed_Memory_Watch(const char* text)
{
  const std::size_t length = std::strlen(text);
  if (length > sizeof wanted)
    std::abort();
  std::memcpy(wanted, text, length);
  found_blocks = 0;
  wanted_bytes = length;
}

Freed_Memory_Watch::~Freed_Memory_Watch()
{
  wanted_bytes = 0;
}

unsigned Freed_Memory_Watch::found() const
{
  return found_blocks;
}
} // namespace kestrel_test

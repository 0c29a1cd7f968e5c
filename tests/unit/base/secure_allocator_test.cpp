#include "base/secure_allocator.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <new>

namespace
{
/// The block whose content is to be seen at the moment it is freed.
void* watched = nullptr;
char seen[64];

void release(void* memory)
{
  if (memory && memory == watched) {
    ::memcpy(seen, memory, sizeof seen);
    watched = nullptr;
  }
  ::free(memory);
}
} // namespace

// Memory must not be looked at after it was freed, so this test program frees through functions that look
// before.
void* operator new(size_t size)
{
  void* const memory = ::malloc(size ? size : 1);
  if (!memory)
    throw std::bad_alloc();
  return memory;
}

void* operator new(size_t size, const std::nothrow_t&) noexcept
{
  return ::malloc(size ? size : 1);
}

void operator delete(void* memory) noexcept
{
  release(memory);
}

void operator delete(void* memory, size_t) noexcept
{
  release(memory);
}

void operator delete(void* memory, const std::nothrow_t&) noexcept
{
  release(memory);
}

TEST(Secure_Allocator, wipes_memory_before_it_is_freed)
{
  for (char& c : seen)
    c = '?';
  {
    secure_string text(200, 's');
    watched = &text[0];
  }
  for (char c : seen)
    ASSERT_EQ('\0', c);
}

TEST(Secure_Allocator, wipes_what_a_growing_text_leaves_behind)
{
  for (char& c : seen)
    c = '?';
  secure_string text(200, 's');
  watched = &text[0];
  text.append(1000, 't');
  for (char c : seen)
    ASSERT_EQ('\0', c);
}

TEST(Secure_Allocator, is_the_same_everywhere)
{
  EXPECT_TRUE(secure_allocator<char>() == secure_allocator<int>());
  EXPECT_FALSE(secure_allocator<char>() != secure_allocator<int>());
}

TEST(Secure_Allocator, wipe_clears_short_and_long_texts)
{
  for (size_t length : {5u, 500u}) {
    secure_string text(length, 's');
    const char* const content = text.data();
    {
      kestrel::Wipe_Guard guard(text);
    }
    EXPECT_TRUE(text.empty());
    // The capacity is kept, so the characters are still the string's own memory.
    for (size_t i = 0; i < length; ++i)
      ASSERT_EQ('\0', content[i]) << i;
  }
}

#pragma once

#include <cstddef>
#include <memory>
#include <string.h>
#include <string>

/// An allocator that wipes memory before it gives it back, for texts that hold passwords and keys.
/// Limit: a basic_string keeps short texts inside the object, where no allocator sees them. Whoever owns a
/// secure_string with a real secret puts a kestrel::Wipe_Guard on the next line.
template <class T> class secure_allocator
{
public:
  typedef T value_type;

  secure_allocator() noexcept {}
  template <class U> secure_allocator(const secure_allocator<U>&) noexcept {}

  T* allocate(size_t count) { return std::allocator<T>().allocate(count); }
  void deallocate(T* memory, size_t count) noexcept
  {
    ::explicit_bzero(static_cast<void*>(memory), count * sizeof(T));
    std::allocator<T>().deallocate(memory, count);
  }
};

template <class T, class U> bool operator==(const secure_allocator<T>&, const secure_allocator<U>&) noexcept
{
  return true;
}
template <class T, class U> bool operator!=(const secure_allocator<T>&, const secure_allocator<U>&) noexcept
{
  return false;
}

typedef std::basic_string<char, std::char_traits<char>, secure_allocator<char>> secure_string;

namespace kestrel
{
/// Overwrites the characters of a text (its whole capacity) with zeros and makes it empty.
template <class Traits, class Allocator> void wipe(std::basic_string<char, Traits, Allocator>& text) noexcept
{
  text.resize(text.capacity());
  ::explicit_bzero(&text[0], text.size());
  text.clear();
}

/// Wipes a text when it goes out of scope. The text is not owned and must outlive the guard.
template <class String> class Wipe_Guard
{
public:
  explicit Wipe_Guard(String& text) : text_(text) {}
  ~Wipe_Guard() { wipe(text_); }
  Wipe_Guard(const Wipe_Guard&) = delete;
  Wipe_Guard& operator=(const Wipe_Guard&) = delete;

private:
  String& text_;
};
} // namespace kestrel

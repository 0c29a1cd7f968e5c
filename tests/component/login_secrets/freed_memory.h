#pragma once

namespace kestrel_test
{
/// Looks for a text in every block of memory that this program gives back to the heap with operator delete, which takes
/// the place of the usual one here: a copy of a secret that nobody wiped is found.
/// Limits:  sees neither stacks nor what C libraries allocate themselves.
/// Threads: one watch at a time; it sees all threads.
class Freed_Memory_Watch
{
public:
  /// At most 128 characters.
  explicit Freed_Memory_Watch(const char* text);
  ~Freed_Memory_Watch();
  Freed_Memory_Watch(const Freed_Memory_Watch&) = delete;
  Freed_Memory_Watch& operator=(const Freed_Memory_Watch&) = delete;

  /// How many blocks held it when they were freed.
  unsigned found() const;
};
} // namespace kestrel_test

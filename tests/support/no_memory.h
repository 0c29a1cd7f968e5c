#pragma once

namespace kestrel_test
{
/// Makes non-throwing `new` of the calling thread fail until the end of the scope: after `good` times that
/// succeed, as often as `bad` says.
class No_Memory
{
public:
  explicit No_Memory(unsigned good = 0, unsigned bad = ~0u);
  ~No_Memory();
  /// Whether anything was refused so far. For loops that let the first, the second, ... allocation fail.
  bool refused() const;
  No_Memory(const No_Memory&) = delete;
  No_Memory& operator=(const No_Memory&) = delete;

private:
  const unsigned bad_;
};
} // namespace kestrel_test

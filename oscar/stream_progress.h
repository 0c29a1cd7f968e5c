#pragma once

#include <cstdint>

namespace oscar
{
/// Counts bytes against an expected total and tells when a new whole percentage is reached. 0 and 100 are
/// never told and no percentage twice: the start and the end of a job are reported elsewhere. One thread.
class Stream_Progress
{
public:
  explicit Stream_Progress(uint64_t total_bytes) : total_(total_bytes) {}

  /// True when the bytes moved lead to a percentage that is to be reported; percent is then set.
  [[nodiscard]] bool advance(uint64_t bytes, int& percent)
  {
    count(bytes);
    const uint64_t reached = total_ ? done_ * 100 / total_ : 0;
    if (reached <= last_percent_ || reached >= 100)
      return false;
    last_percent_ = reached;
    percent = static_cast<int>(reached);
    return true;
  }
  /// Counts bytes that are not to be reported now.
  void count(uint64_t bytes) { done_ += bytes; }
  void total(uint64_t total_bytes) { total_ = total_bytes; }
  uint64_t total() const { return total_; }
  uint64_t done() const { return done_; }

private:
  uint64_t total_;
  uint64_t done_ = 0;
  uint64_t last_percent_ = 0;
};
} // namespace oscar

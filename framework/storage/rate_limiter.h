#pragma once

#include <atomic>
#include <cstdint>

namespace kestrel
{
/// Holds a stream at a number of bytes per second: a token bucket that is emptied as bytes are announced.
/// Limits:  the stream may lag behind and catch up at most a fifth of a second's worth; there is no burst at
///          the start.
/// Threads: one thread at a time; `stopped` may be set by any.
/// Units:   bytes, bytes per second (0 = unlimited).
class Rate_Limiter
{
public:
  explicit Rate_Limiter(uint64_t bytes_per_second);

  /// Waits until `bytes` more may move, in sleeps of at most 100 ms of kestrel::clock(). False when `stopped`
  /// was seen set; the bytes then count as not moved.
  [[nodiscard]] bool wait_for(unsigned bytes, const std::atomic<bool>& stopped);

  /// How many bytes to announce at once, at most `most`: about a twentieth of a second's worth, at least 1.
  unsigned piece(unsigned most) const;

  bool unlimited() const { return bytes_per_second_ == 0; }

private:
  const uint64_t bytes_per_second_;
  bool started_ = false;
  // When everything announced so far may have moved, and the part of a nanosecond lost by the division.
  int64_t due_nsec_ = 0;
  uint64_t remainder_ = 0;
};
} // namespace kestrel

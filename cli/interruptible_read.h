#pragma once

#include <csignal>
#include <cstddef>
#include <sys/types.h>

namespace kestrel
{
/// While it lives, SIGINT and SIGTERM end the wait of read() instead of the process, so that whoever asks at
/// the terminal can put it in order and say what was not done. What was set for the signals comes back with
/// its end.
/// Threads:   one at a time, main thread only; it does not matter which thread a signal comes to.
/// Ownership: the descriptor stays the caller's.
class Interruptible_Read
{
public:
  Interruptible_Read();
  ~Interruptible_Read();
  Interruptible_Read(const Interruptible_Read&) = delete;
  Interruptible_Read& operator=(const Interruptible_Read&) = delete;

  /// As ::read(), which it calls when there is something to read. -1 with EINTR exactly when one of the
  /// signals has come, even before the call.
  [[nodiscard]] ssize_t read(int descriptor, void* buffer, size_t size);

private:
  struct sigaction interrupt_;
  struct sigaction terminate_;
};
} // namespace kestrel

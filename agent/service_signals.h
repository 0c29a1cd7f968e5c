#pragma once

#include "base/descriptor.h"

#include <csignal>
#include <cstdint>

namespace kestrel
{
/// The signals that steer a daemon. Handlers only count and wake; the daemon asks in its own time. Child
/// processes get the default actions back when they are started, as handlers always do; blocked signals would
/// reach them as such.
/// Threads: one object at a time in a process; made and used on the main thread.
/// Errors:  install(): false with errno.
class Service_Signals
{
public:
  Service_Signals() = default;
  ~Service_Signals();
  Service_Signals(const Service_Signals&) = delete;
  Service_Signals& operator=(const Service_Signals&) = delete;

  /// SIGTERM, SIGINT and SIGHUP; SIGPIPE is ignored from here on.
  [[nodiscard]] bool install();
  /// Returns when a signal came, or wake() was called, or the time is over.
  void wait(int64_t msec);
  /// From any thread.
  void wake();

  /// How often the process was asked to end.
  unsigned terminations() const;
  /// True once for any number of requests to read the settings again.
  bool take_reload();

private:
  bool installed_ = false;
  struct sigaction previous_[3];
};
} // namespace kestrel

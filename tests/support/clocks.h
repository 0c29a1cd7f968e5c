#pragma once

#include "base/clock.h"

#include <atomic>
#include <mutex>

namespace kestrel_test
{
/// A clock that stands still: sleeping only moves it on. For unit tests; installed process-wide while it
/// lives.
/// Threads: any; threads that sleep at the same time each add their time.
class Fake_Clock : public kestrel::Clock
{
public:
  explicit Fake_Clock(time_t start = 1700000000);
  time_t now() override;
  int64_t monotonic_msec() override;
  void sleep_msec(int64_t msec) override;

  void advance_msec(int64_t msec);
  /// All sleeps so far, in milliseconds, and their number.
  int64_t slept_msec() const;
  unsigned sleeps() const;

private:
  mutable std::mutex mutex_;
  int64_t unix_msec_;
  int64_t monotonic_msec_ = 1000000;
  int64_t slept_msec_ = 0;
  unsigned sleeps_ = 0;
  kestrel::Scoped_Clock scope_;
};

/// A clock that runs `factor` times as fast as the real one: a sleep of 60 seconds takes 60/factor. For
/// component tests with real children; installed process-wide while it lives. Later clocks of a process go on
/// where earlier ones ended, so that nothing waits for a time that it has seen before. A sleep of a second or
/// more takes 50 ms at least.
class Scaled_Clock : public kestrel::Clock
{
public:
  explicit Scaled_Clock(unsigned factor);
  ~Scaled_Clock() override;
  time_t now() override;
  int64_t monotonic_msec() override;
  void sleep_msec(int64_t msec) override;

  /// The time stands still from here on; sleeps go on to last as before. For what must not run out of time
  /// however slow the machine is.
  void stand_still();

private:
  int64_t scaled_msec();

  std::atomic<int64_t> stands_at_{-1};
  const unsigned factor_;
  const time_t start_;
  const int64_t origin_;
  kestrel::Scoped_Clock scope_;
};
} // namespace kestrel_test

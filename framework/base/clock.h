#pragma once

#include <cstdint>
#include <ctime>

namespace kestrel
{
/// Where the product reads the time and sleeps, so that tests need not wait.
/// Threads: any.
/// Units:   now() seconds since 1970, *_msec milliseconds; the monotonic time has no fixed origin.
class Clock
{
public:
  virtual ~Clock();
  virtual time_t now();
  virtual int64_t monotonic_msec();
  /// Sleeps the whole time, signals or not. Zero or less returns at once.
  virtual void sleep_msec(int64_t msec);
};

/// The clock in use: the system's, unless a Scoped_Clock replaced it.
Clock& clock();

/// Puts another clock in place for the whole process until the scope ends. For tests; the clock is not owned
/// and must outlive the scope and every thread that may still ask for the time.
class Scoped_Clock
{
public:
  explicit Scoped_Clock(Clock& replacement);
  ~Scoped_Clock();
  Scoped_Clock(const Scoped_Clock&) = delete;
  Scoped_Clock& operator=(const Scoped_Clock&) = delete;

private:
  Clock* previous_;
};
} // namespace kestrel

#include "base/clock.h"

#include <atomic>
#include <cerrno>
#include <time.h>

namespace kestrel
{
namespace
{
Clock& system_clock()
{
  // Never destroyed: detached threads may ask for the time while the process ends.
  static Clock* const instance = new Clock;
  return *instance;
}

std::atomic<Clock*> replacement_clock{nullptr};
} // namespace

Clock::~Clock() {}

time_t Clock::now()
{
  return ::time(nullptr);
}

int64_t Clock::monotonic_msec()
{
  timespec now;
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

void Clock::sleep_msec(int64_t msec)
{
  if (msec <= 0)
    return;
  timespec rest;
  rest.tv_sec = static_cast<time_t>(msec / 1000);
  rest.tv_nsec = static_cast<long>(msec % 1000) * 1000000;
  while (::clock_nanosleep(CLOCK_MONOTONIC, 0, &rest, &rest) == EINTR)
    continue;
}

Clock& clock()
{
  Clock* const replacement = replacement_clock.load(std::memory_order_acquire);
  return replacement ? *replacement : system_clock();
}

Scoped_Clock::Scoped_Clock(Clock& replacement) : previous_(replacement_clock.exchange(&replacement)) {}

Scoped_Clock::~Scoped_Clock()
{
  replacement_clock.store(previous_);
}
} // namespace kestrel

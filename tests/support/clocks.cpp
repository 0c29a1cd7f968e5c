#include "support/clocks.h"

#include <algorithm>
#include <atomic>

#include <sched.h>

namespace kestrel_test
{
Fake_Clock::Fake_Clock(time_t start) : unix_msec_(static_cast<int64_t>(start) * 1000), scope_(*this) {}

time_t Fake_Clock::now()
{
  std::lock_guard<std::mutex> guard(mutex_);
  return static_cast<time_t>(unix_msec_ / 1000);
}

int64_t Fake_Clock::monotonic_msec()
{
  std::lock_guard<std::mutex> guard(mutex_);
  return monotonic_msec_;
}

void Fake_Clock::sleep_msec(int64_t msec)
{
  if (msec > 0) {
    advance_msec(msec);
    std::lock_guard<std::mutex> guard(mutex_);
    slept_msec_ += msec;
    ++sleeps_;
  }
  ::sched_yield(); // lets a thread that polls with sleeps make room for the one it waits for
}

void Fake_Clock::advance_msec(int64_t msec)
{
  std::lock_guard<std::mutex> guard(mutex_);
  unix_msec_ += msec;
  monotonic_msec_ += msec;
}

int64_t Fake_Clock::slept_msec() const
{
  std::lock_guard<std::mutex> guard(mutex_);
  return slept_msec_;
}

unsigned Fake_Clock::sleeps() const
{
  std::lock_guard<std::mutex> guard(mutex_);
  return sleeps_;
}

namespace
{
/// Who sleeps for a second or more waits for somebody else, such as a process that is to end. That one gets
/// this much of real time, so that a few polls are enough for it on a busy machine.
const int64_t LEAST_PAUSE_MSEC = 50;

/// The latest time that a scaled clock of this process may have told.
std::atomic<time_t> latest_time{0};
} // namespace

Scaled_Clock::Scaled_Clock(unsigned factor)
    : factor_(factor), start_(std::max(kestrel::Clock::now(), latest_time + 1)),
      origin_(kestrel::Clock::monotonic_msec()), scope_(*this)
{
}

Scaled_Clock::~Scaled_Clock()
{
  latest_time = now();
}

void Scaled_Clock::stand_still()
{
  stands_at_ = scaled_msec();
}

int64_t Scaled_Clock::scaled_msec()
{
  const int64_t stands_at = stands_at_;
  if (stands_at >= 0)
    return stands_at;
  return (kestrel::Clock::monotonic_msec() - origin_) * factor_;
}

time_t Scaled_Clock::now()
{
  return start_ + static_cast<time_t>(scaled_msec() / 1000);
}

int64_t Scaled_Clock::monotonic_msec()
{
  return origin_ + scaled_msec();
}

void Scaled_Clock::sleep_msec(int64_t msec)
{
  if (msec <= 0)
    return;
  const int64_t real_msec = (msec + factor_ - 1) / factor_;
  kestrel::Clock::sleep_msec(msec < 1000 ? real_msec : std::max(real_msec, LEAST_PAUSE_MSEC));
}
} // namespace kestrel_test

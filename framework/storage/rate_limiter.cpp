#include "storage/rate_limiter.h"

#include "base/clock.h"

#include <algorithm>

namespace kestrel
{
namespace
{
const int64_t NSEC_PER_MSEC = 1000000;
const uint64_t NSEC_PER_SEC = 1000000000;
const int64_t LONGEST_SLEEP_MSEC = 100;
const int64_t CATCH_UP_NSEC = 200 * NSEC_PER_MSEC;
const uint64_t PIECES_PER_SECOND = 20;
} // namespace

Rate_Limiter::Rate_Limiter(uint64_t bytes_per_second) : bytes_per_second_(bytes_per_second) {}

bool Rate_Limiter::wait_for(unsigned bytes, const std::atomic<bool>& stopped)
{
  if (unlimited() || bytes == 0)
    return !stopped;
  int64_t now_nsec = clock().monotonic_msec() * NSEC_PER_MSEC;
  if (!started_) {
    started_ = true;
    due_nsec_ = now_nsec;
  }
  const uint64_t cost = bytes * NSEC_PER_SEC + remainder_;
  int64_t due_nsec =
      std::max(due_nsec_, now_nsec - CATCH_UP_NSEC) + static_cast<int64_t>(cost / bytes_per_second_);
  while (!stopped) {
    if (now_nsec >= due_nsec) {
      due_nsec_ = due_nsec;
      remainder_ = cost % bytes_per_second_;
      return true;
    }
    const int64_t left_msec = (due_nsec - now_nsec + NSEC_PER_MSEC - 1) / NSEC_PER_MSEC;
    clock().sleep_msec(std::min(left_msec, LONGEST_SLEEP_MSEC));
    now_nsec = clock().monotonic_msec() * NSEC_PER_MSEC;
  }
  return false;
}

unsigned Rate_Limiter::piece(unsigned most) const
{
  if (unlimited())
    return most;
  return static_cast<unsigned>(std::clamp<uint64_t>(bytes_per_second_ / PIECES_PER_SECOND, 1, most));
}
} // namespace kestrel

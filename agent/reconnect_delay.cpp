#include "agent/reconnect_delay.h"

#include <algorithm>

namespace kestrel
{
Reconnect_Delay::Reconnect_Delay(uint32_t seed) : random_(seed) {}

int64_t Reconnect_Delay::jittered(int64_t msec)
{
  return std::uniform_int_distribution<int64_t>(msec / 2, msec)(random_);
}

int64_t Reconnect_Delay::after_failure()
{
  const int64_t delay = jittered(next_msec_);
  next_msec_ = std::min(next_msec_ * 2, longest_msec);
  return delay;
}

int64_t Reconnect_Delay::after_connection(int64_t lasted_msec)
{
  if (lasted_msec >= good_connection_msec)
    next_msec_ = first_msec;
  return after_failure();
}

int64_t Reconnect_Delay::after_refusal()
{
  next_msec_ = longest_msec;
  return jittered(longest_msec);
}
} // namespace kestrel

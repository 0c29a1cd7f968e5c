#pragma once

#include <cstdint>
#include <random>

namespace kestrel
{
/// How long to wait before the server is dialled again: 1 s, doubling to 60 s, each drawn from the upper half
/// of its value so that many agents do not return in step. A connection that held for a minute starts the row
/// anew; a refused access key waits the longest time, since only a person can mend it.
/// Threads: one at a time.
/// Units:   milliseconds on the monotonic clock.
class Reconnect_Delay
{
public:
  static constexpr int64_t first_msec = 1000;
  static constexpr int64_t longest_msec = 60000;
  static constexpr int64_t good_connection_msec = 60000;

  explicit Reconnect_Delay(uint32_t seed);

  /// After a dial that failed.
  int64_t after_failure();
  /// After a connection that lasted so long.
  int64_t after_connection(int64_t lasted_msec);
  /// After a dial that the server refused for its access key.
  int64_t after_refusal();

private:
  int64_t jittered(int64_t msec);

  std::mt19937 random_;
  int64_t next_msec_ = first_msec;
};
} // namespace kestrel

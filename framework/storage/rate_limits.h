#pragma once

#include <cstdint>

/// The speed that a job may use towards storage: one limit for each direction.
/// Units:     bytes per second, counted as the bytes travel (after compression); 0 = unlimited.
/// Threads:   a plain value; share it between threads only while nobody changes it.
/// Errors:    none.
class Rate_Limits
{
public:
  Rate_Limits() = default;
  Rate_Limits(uint64_t write_bytes_per_second, uint64_t read_bytes_per_second);

  /// Limit of a backup (towards storage).
  uint64_t write_limit() const { return write_limit_; }
  /// Limit of a restore (from storage).
  uint64_t read_limit() const { return read_limit_; }
  void write_limit(uint64_t bytes_per_second) { write_limit_ = bytes_per_second; }
  void read_limit(uint64_t bytes_per_second) { read_limit_ = bytes_per_second; }

  /// Narrows both limits to one of `channels` parallel channels: an integer division, with 1 as the smallest
  /// limit that is still a limit. 0 and 1 change nothing. Each call divides again.
  void set_rate_limits_by_channels(unsigned channels);

private:
  uint64_t write_limit_ = 0;
  uint64_t read_limit_ = 0;
};

#include "storage/rate_limits.h"

#include <algorithm>

Rate_Limits::Rate_Limits(uint64_t write_bytes_per_second, uint64_t read_bytes_per_second)
    : write_limit_(write_bytes_per_second), read_limit_(read_bytes_per_second)
{
}

void Rate_Limits::set_rate_limits_by_channels(unsigned channels)
{
  if (channels < 2)
    return;
  for (uint64_t* limit : {&write_limit_, &read_limit_}) {
    if (*limit != 0)
      *limit = std::max<uint64_t>(1, *limit / channels);
  }
}

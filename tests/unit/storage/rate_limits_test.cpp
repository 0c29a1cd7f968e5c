#include "storage/rate_limits.h"

#include <gtest/gtest.h>

namespace
{
TEST(Rate_Limits, are_unlimited_by_default)
{
  Rate_Limits limits;
  limits.set_rate_limits_by_channels(4);
  EXPECT_EQ(0u, limits.write_limit());
  EXPECT_EQ(0u, limits.read_limit());
}

TEST(Rate_Limits, are_divided_by_the_channels)
{
  Rate_Limits limits(1000, 10);
  limits.set_rate_limits_by_channels(3);
  EXPECT_EQ(333u, limits.write_limit());
  EXPECT_EQ(3u, limits.read_limit());
}

TEST(Rate_Limits, stay_a_limit_when_there_are_more_channels_than_bytes)
{
  Rate_Limits limits(2, 0);
  limits.set_rate_limits_by_channels(5);
  EXPECT_EQ(1u, limits.write_limit());
  EXPECT_EQ(0u, limits.read_limit());
}

TEST(Rate_Limits, are_unchanged_for_one_or_no_channel)
{
  Rate_Limits limits(1000, 10);
  limits.set_rate_limits_by_channels(1);
  limits.set_rate_limits_by_channels(0);
  EXPECT_EQ(1000u, limits.write_limit());
  EXPECT_EQ(10u, limits.read_limit());
}
} // namespace

#include "agent/reconnect_delay.h"

#include <gtest/gtest.h>

#include <set>

using kestrel::Reconnect_Delay;

namespace
{
void expect_between(int64_t low, int64_t high, int64_t value)
{
  EXPECT_LE(low, value);
  EXPECT_GE(high, value);
}

TEST(Reconnect_Delay, doubles_from_a_second_to_a_minute_with_jitter)
{
  Reconnect_Delay delay(7);
  for (const int64_t whole : {1000, 2000, 4000, 8000, 16000, 32000, 60000, 60000, 60000})
    expect_between(whole / 2, whole, delay.after_failure());
}

TEST(Reconnect_Delay, two_agents_do_not_return_in_step)
{
  std::set<int64_t> values;
  for (uint32_t seed = 0; seed < 20; ++seed)
    values.insert(Reconnect_Delay(seed).after_failure());
  EXPECT_GT(values.size(), 10u);
}

TEST(Reconnect_Delay, a_good_connection_starts_the_row_anew_and_a_short_one_does_not)
{
  Reconnect_Delay delay(7);
  for (int i = 0; i < 4; ++i)
    delay.after_failure();
  expect_between(8000, 16000, delay.after_connection(59999));
  expect_between(500, 1000, delay.after_connection(60000));
  expect_between(1000, 2000, delay.after_failure());
}

TEST(Reconnect_Delay, a_refused_key_waits_longest_at_once)
{
  Reconnect_Delay delay(7);
  expect_between(30000, 60000, delay.after_refusal());
  expect_between(30000, 60000, delay.after_failure());
}
} // namespace

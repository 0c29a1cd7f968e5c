#include "support/clocks.h"

#include <gtest/gtest.h>

using kestrel_test::Fake_Clock;

TEST(Clock, is_the_systems_unless_replaced)
{
  const time_t before = ::time(nullptr);
  EXPECT_GE(kestrel::clock().now(), before);
  {
    Fake_Clock fake(1000);
    EXPECT_EQ(1000, kestrel::clock().now());
  }
  EXPECT_GE(kestrel::clock().now(), before);
}

TEST(Clock, does_not_sleep_for_nothing)
{
  kestrel::Clock clock;
  const int64_t before = clock.monotonic_msec();
  clock.sleep_msec(0);
  clock.sleep_msec(-1000000);
  clock.sleep_msec(2);
  EXPECT_GE(clock.monotonic_msec() - before, 1);
}

TEST(Fake_Clock, moves_on_by_sleeping_only)
{
  Fake_Clock fake(1000);
  const int64_t start = kestrel::clock().monotonic_msec();
  EXPECT_EQ(start, kestrel::clock().monotonic_msec());
  kestrel::clock().sleep_msec(3000);
  kestrel::clock().sleep_msec(0);
  EXPECT_EQ(1003, kestrel::clock().now());
  EXPECT_EQ(start + 3000, kestrel::clock().monotonic_msec());
  EXPECT_EQ(3000, fake.slept_msec());
  EXPECT_EQ(1u, fake.sleeps());
  fake.advance_msec(500);
  EXPECT_EQ(3000, fake.slept_msec());
}

TEST(Scaled_Clock, runs_faster)
{
  kestrel_test::Scaled_Clock scaled(1000);
  const int64_t start = kestrel::clock().monotonic_msec();
  kestrel::clock().sleep_msec(3000);
  EXPECT_GE(kestrel::clock().monotonic_msec() - start, 3000);
}

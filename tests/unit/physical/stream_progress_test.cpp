#include "oscar/stream_progress.h"

#include <gtest/gtest.h>

#include <limits>

using oscar::Stream_Progress;

TEST(Stream_Progress, tells_each_percentage_between_0_and_100_once)
{
  Stream_Progress progress(1000);
  std::string told;
  int percent = 0;
  for (int i = 0; i < 1000; ++i)
    if (progress.advance(1, percent))
      told += std::to_string(percent) + " ";
  std::string expected;
  for (int i = 1; i < 100; ++i)
    expected += std::to_string(i) + " ";
  EXPECT_EQ(expected, told);
  EXPECT_EQ(1000u, progress.done());
}

TEST(Stream_Progress, skips_percentages_that_large_blocks_pass)
{
  Stream_Progress progress(100);
  int percent = 0;
  EXPECT_TRUE(progress.advance(30, percent));
  EXPECT_EQ(30, percent);
  EXPECT_FALSE(progress.advance(0, percent));
  EXPECT_TRUE(progress.advance(69, percent));
  EXPECT_EQ(99, percent);
  EXPECT_FALSE(progress.advance(1, percent));
}

TEST(Stream_Progress, tells_nothing_when_more_comes_than_was_expected)
{
  Stream_Progress progress(10);
  int percent = -1;
  EXPECT_FALSE(progress.advance(11, percent));
  EXPECT_FALSE(progress.advance(1000000, percent));
  EXPECT_EQ(-1, percent);
}

TEST(Stream_Progress, counts_without_telling)
{
  Stream_Progress progress(100);
  int percent = 0;
  progress.count(50);
  EXPECT_EQ(50u, progress.done());
  EXPECT_TRUE(progress.advance(1, percent));
  EXPECT_EQ(51, percent);
}

TEST(Stream_Progress, works_with_totals_of_many_gigabytes)
{
  Stream_Progress progress(uint64_t(1) << 42);
  int percent = 0;
  EXPECT_TRUE(progress.advance(uint64_t(1) << 41, percent));
  EXPECT_EQ(50, percent);
}

TEST(Stream_Progress, survives_a_total_of_zero)
{
  Stream_Progress progress(0);
  int percent = 0;
  EXPECT_FALSE(progress.advance(1, percent));
}

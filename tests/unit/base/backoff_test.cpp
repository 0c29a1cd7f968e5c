#include "base/backoff.h"

#include <gtest/gtest.h>

#include <vector>

namespace
{
std::vector<unsigned> values(unsigned slot_time, unsigned retries, unsigned capped, bool jitter)
{
  std::vector<unsigned> all;
  for (Exponential_Backoff_Iterator at(slot_time, retries, capped, jitter);
       at != Exponential_Backoff_Iterator(); ++at)
    all.push_back(*at);
  return all;
}
} // namespace

TEST(Exponential_Backoff_Iterator, doubles_up_to_the_cap)
{
  EXPECT_EQ((std::vector<unsigned>{1, 2, 4, 8, 10, 10}), values(1, 6, 10, false));
  EXPECT_EQ((std::vector<unsigned>{3, 6}), values(3, 2, 100, false));
  EXPECT_EQ((std::vector<unsigned>{5}), values(7, 1, 5, false));
}

TEST(Exponential_Backoff_Iterator, has_no_value_without_retries)
{
  EXPECT_TRUE(values(1, 0, 10, true).empty());
  Exponential_Backoff_Iterator end;
  ++end;
  EXPECT_TRUE(end == Exponential_Backoff_Iterator());
  EXPECT_EQ(0u, *end);
}

TEST(Exponential_Backoff_Iterator, does_not_overflow_after_many_steps)
{
  const std::vector<unsigned> all = values(3, 100, 4000000000u, false);
  ASSERT_EQ(100u, all.size());
  EXPECT_EQ(4000000000u, all.back());
  EXPECT_EQ((std::vector<unsigned>{0, 0}), values(0, 2, 10, true));
}

TEST(Exponential_Backoff_Iterator, keeps_jitter_between_half_and_whole)
{
  bool different = false;
  const std::vector<unsigned> first = values(1, 8, 64, true);
  for (int round = 0; round < 200; ++round) {
    const std::vector<unsigned> all = values(1, 8, 64, true);
    for (unsigned n = 0; n < all.size(); ++n) {
      const unsigned whole = std::min(64u, 1u << n);
      EXPECT_LE(std::max(1u, whole / 2), all[n]);
      EXPECT_GE(whole, all[n]);
    }
    different = different || all != first;
  }
  EXPECT_TRUE(different);
}

TEST(Exponential_Backoff_Iterator, gives_one_value_however_often_it_is_asked)
{
  Exponential_Backoff_Iterator at(100, 3, 1000, true);
  const unsigned value = *at;
  for (int i = 0; i < 20; ++i)
    EXPECT_EQ(value, *at);
}

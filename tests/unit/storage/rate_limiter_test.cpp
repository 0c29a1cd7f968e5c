#include "storage/rate_limiter.h"

#include "support/clocks.h"

#include <gtest/gtest.h>

#include <vector>

namespace
{
/// Sets a flag after some sleeps and remembers how long each was.
class Stopping_Clock : public kestrel_test::Fake_Clock
{
public:
  void sleep_msec(int64_t msec) override
  {
    lengths_.push_back(msec);
    Fake_Clock::sleep_msec(msec);
    if (lengths_.size() == stop_after_)
      stopped_ = true;
  }

  std::vector<int64_t> lengths_;
  size_t stop_after_ = 0;
  std::atomic<bool> stopped_{false};
};

TEST(Rate_Limiter, never_waits_without_a_limit)
{
  kestrel_test::Fake_Clock clock;
  const std::atomic<bool> stopped{false};
  kestrel::Rate_Limiter limiter(0);
  EXPECT_TRUE(limiter.wait_for(1000000000, stopped));
  EXPECT_EQ(0, clock.slept_msec());
  EXPECT_EQ(12345u, limiter.piece(12345));
}

TEST(Rate_Limiter, holds_the_limit_exactly_over_time)
{
  for (const uint64_t limit :
       {uint64_t(1), uint64_t(3), uint64_t(1000), uint64_t(1048573), uint64_t(5000000000)}) {
    SCOPED_TRACE(limit);
    kestrel_test::Fake_Clock clock;
    const std::atomic<bool> stopped{false};
    kestrel::Rate_Limiter limiter(limit);
    const int64_t begin = clock.monotonic_msec();
    const uint64_t total = limit * 10;
    for (uint64_t done = 0; done < total;) {
      const unsigned piece = static_cast<unsigned>(std::min<uint64_t>(limiter.piece(262144), total - done));
      ASSERT_TRUE(limiter.wait_for(piece, stopped));
      done += piece;
    }
    EXPECT_NEAR(10000, static_cast<double>(clock.monotonic_msec() - begin), 2);
  }
}

TEST(Rate_Limiter, makes_up_for_short_delays_only)
{
  kestrel_test::Fake_Clock clock;
  const std::atomic<bool> stopped{false};
  kestrel::Rate_Limiter limiter(1000);
  ASSERT_TRUE(limiter.wait_for(100, stopped));
  clock.advance_msec(150);
  int64_t slept = clock.slept_msec();
  ASSERT_TRUE(limiter.wait_for(150, stopped));
  EXPECT_EQ(slept, clock.slept_msec());
  clock.advance_msec(60000);
  slept = clock.slept_msec();
  ASSERT_TRUE(limiter.wait_for(1200, stopped));
  EXPECT_EQ(1000, clock.slept_msec() - slept);
}

TEST(Rate_Limiter, sleeps_in_short_pieces_and_gives_up_when_stopped)
{
  Stopping_Clock clock;
  clock.stop_after_ = 3;
  kestrel::Rate_Limiter limiter(1);
  EXPECT_FALSE(limiter.wait_for(1000000, clock.stopped_));
  EXPECT_EQ((std::vector<int64_t>{100, 100, 100}), clock.lengths_);
}

TEST(Rate_Limiter, cuts_pieces_of_a_twentieth_of_a_second)
{
  EXPECT_EQ(1u, kestrel::Rate_Limiter(1).piece(100));
  EXPECT_EQ(50u, kestrel::Rate_Limiter(1000).piece(100));
  EXPECT_EQ(100u, kestrel::Rate_Limiter(1000000).piece(100));
}
} // namespace

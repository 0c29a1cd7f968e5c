#include "base/heartbeat.h"
#include "support/clocks.h"

#include <gtest/gtest.h>

using kestrel::Heartbeat;
using kestrel::Heartbeats;
using kestrel_test::Fake_Clock;

namespace
{
typedef std::vector<std::string> Names;

TEST(Heartbeats, tell_the_loops_that_have_not_reported_in_time)
{
  Fake_Clock clock;
  Heartbeats beats;
  const size_t fast = beats.add("fast", 1000);
  const size_t slow = beats.add("slow", 5000);
  EXPECT_TRUE(beats.stuck().empty());
  clock.advance_msec(1000);
  EXPECT_TRUE(beats.stuck().empty()) << "the limit itself is in time";
  clock.advance_msec(1);
  EXPECT_EQ(Names{"fast"}, beats.stuck());
  clock.advance_msec(4000);
  EXPECT_EQ((Names{"fast", "slow"}), beats.stuck());
  beats.beat(fast);
  EXPECT_EQ(Names{"slow"}, beats.stuck());
  beats.end(slow);
  EXPECT_TRUE(beats.stuck().empty());
}

TEST(Heartbeats, of_an_ended_loop_disturb_no_other)
{
  Fake_Clock clock;
  Heartbeats beats;
  const size_t ended = beats.add("ended", 1000);
  beats.end(ended);
  const size_t next = beats.add("next", 1000);
  EXPECT_NE(ended, next);
  clock.advance_msec(2000);
  beats.beat(ended);
  beats.end(ended);
  EXPECT_EQ(Names{"next"}, beats.stuck());
}

TEST(Heartbeat, is_watched_while_its_loop_lives)
{
  Fake_Clock clock;
  Heartbeats beats;
  {
    Heartbeat beat(&beats, "loop", 1000);
    clock.advance_msec(1001);
    EXPECT_EQ(Names{"loop"}, beats.stuck());
    beat.beat();
    EXPECT_TRUE(beats.stuck().empty());
    clock.advance_msec(1001);
    EXPECT_EQ(Names{"loop"}, beats.stuck());
  }
  EXPECT_TRUE(beats.stuck().empty());
}

TEST(Heartbeat, without_a_watcher_does_nothing)
{
  Heartbeat beat(nullptr, "loop", 1000);
  beat.beat();
}
} // namespace

#include "base/queue_watch.h"

#include "base/heartbeat.h"
#include "support/clocks.h"

#include <gtest/gtest.h>

using kestrel::Heartbeats;
using kestrel::Queue_Watch;
using kestrel_test::Fake_Clock;

namespace
{
typedef std::vector<std::string> Names;

TEST(Queue_Watch, misses_nothing_while_nothing_waits)
{
  Fake_Clock clock;
  Heartbeats beats;
  Queue_Watch watch;
  watch.begin(&beats, "queue", 1000);
  clock.advance_msec(5000);
  EXPECT_TRUE(beats.stuck().empty());
  watch.look(true);
  watch.taken(false);
  clock.advance_msec(5000);
  EXPECT_TRUE(beats.stuck().empty()) << "a task that takes long";
}

TEST(Queue_Watch, tells_when_something_waits_and_nothing_is_taken)
{
  Fake_Clock clock;
  Heartbeats beats;
  Queue_Watch watch;
  watch.begin(&beats, "queue", 1000);
  watch.look(true);
  clock.advance_msec(900);
  watch.look(true); // one more makes it no younger
  clock.advance_msec(101);
  EXPECT_EQ(Names{"queue"}, beats.stuck());
  watch.taken(true);
  EXPECT_TRUE(beats.stuck().empty());
  clock.advance_msec(1001);
  EXPECT_EQ(Names{"queue"}, beats.stuck()) << "another one waits";
  watch.look(false);
  EXPECT_TRUE(beats.stuck().empty()) << "they were dropped";
}

TEST(Queue_Watch, is_not_misled_by_a_queue_that_is_never_empty)
{
  Fake_Clock clock;
  Heartbeats beats;
  Queue_Watch watch;
  watch.begin(&beats, "queue", 1000);
  watch.look(true);
  for (int i = 0; i < 20; ++i) {
    clock.advance_msec(900);
    EXPECT_TRUE(beats.stuck().empty());
    watch.taken(true);
  }
}

TEST(Queue_Watch, leaves_nothing_behind)
{
  Fake_Clock clock;
  Queue_Watch unwatched;
  unwatched.look(true);
  unwatched.taken(true);
  Heartbeats beats;
  {
    Queue_Watch watch;
    watch.begin(&beats, "queue", 1000);
    watch.look(true);
    watch.end();
    watch.look(true);
    clock.advance_msec(2000);
    EXPECT_TRUE(beats.stuck().empty());
    watch.begin(&beats, "queue", 1000);
    watch.look(true);
  }
  clock.advance_msec(2000);
  EXPECT_TRUE(beats.stuck().empty());
}
} // namespace

#include "base/batch_scheduling.h"

#include <gtest/gtest.h>

#include <sched.h>
#include <thread>

using kestrel::Batch_Scheduling;
using kestrel::enter_batch_scheduling;

namespace
{
int policy()
{
  return ::sched_getscheduler(0);
}

/// What a thread of the given policy becomes: one that was started as something special stays that.
int as_batch(int before)
{
  return before == SCHED_OTHER ? SCHED_BATCH : before;
}

/// Runs the function on a thread of its own, whose policy nobody else sees.
template <class Function> void on_a_thread(Function function)
{
  std::thread(function).join();
}
} // namespace

TEST(Batch_Scheduling, lasts_as_long_as_its_scope)
{
  on_a_thread([] {
    const int before = policy();
    {
      const Batch_Scheduling batch;
      EXPECT_EQ(as_batch(before), policy());
    }
    EXPECT_EQ(before, policy());
  });
}

TEST(Batch_Scheduling, is_inherited_by_threads_that_start_within_it)
{
  on_a_thread([] {
    const int expected = as_batch(policy());
    const Batch_Scheduling batch;
    on_a_thread([expected] { EXPECT_EQ(expected, policy()); });
  });
}

TEST(Batch_Scheduling, of_an_inner_scope_leaves_the_outer_ones_alone)
{
  on_a_thread([] {
    const int expected = as_batch(policy());
    const Batch_Scheduling outer;
    {
      const Batch_Scheduling inner;
      EXPECT_FALSE(enter_batch_scheduling());
    }
    EXPECT_EQ(expected, policy());
  });
}

TEST(Batch_Scheduling, does_not_lift_a_thread_that_is_to_work_only_when_nobody_else_does)
{
  on_a_thread([] {
    const sched_param none = {};
    ASSERT_EQ(0, ::sched_setscheduler(0, SCHED_IDLE, &none));
    {
      const Batch_Scheduling batch;
      EXPECT_EQ(SCHED_IDLE, policy());
    }
    EXPECT_EQ(SCHED_IDLE, policy());
  });
}

#include "rpc/json_rpc_task_queue.h"

#include "support/memory_channel.h"

#include <gtest/gtest.h>

using namespace kestrel;
using namespace kestrel_test;

namespace
{
class Task_Queue : public ::testing::Test
{
protected:
  Task_Queue() { in_order_.order = JSON_RPC_Order::as_received; }

  void push(const std::shared_ptr<Message_Channel>& from, const JSON_RPC_Binding& binding, uint64_t key)
  {
    JSON_RPC_Task task;
    task.from = from;
    task.binding = &binding;
    task.key = key;
    queue_.push(task);
  }
  /// The key of the next task, which then runs; 0 when none may.
  uint64_t next(JSON_RPC_Task* taken = nullptr)
  {
    JSON_RPC_Task task;
    if (!queue_.take(task))
      return 0;
    if (taken)
      *taken = task;
    return task.key;
  }

  const std::shared_ptr<Message_Channel> one_ = std::make_shared<Memory_Channel>();
  const std::shared_ptr<Message_Channel> other_ = std::make_shared<Memory_Channel>();
  JSON_RPC_Binding any_;
  JSON_RPC_Binding in_order_;
  JSON_RPC_Task_Queue queue_;
};
} // namespace

TEST_F(Task_Queue, gives_tasks_of_any_order_as_they_came)
{
  EXPECT_TRUE(queue_.empty());
  EXPECT_EQ(0u, next());
  push(one_, any_, 1);
  push(other_, any_, 2);
  push(one_, any_, 3);
  EXPECT_EQ(3u, queue_.size());
  EXPECT_EQ(2u, queue_.size_of(one_.get()));
  EXPECT_EQ(1u, next());
  EXPECT_EQ(2u, next());
  EXPECT_EQ(3u, next());
  EXPECT_EQ(0u, queue_.size());
  EXPECT_EQ(0u, queue_.size_of(one_.get()));
}

TEST_F(Task_Queue, runs_one_at_a_time_of_those_that_must_keep_their_order)
{
  push(one_, in_order_, 1);
  push(one_, in_order_, 2);
  push(one_, any_, 3);
  push(one_, in_order_, 4);
  push(other_, in_order_, 5);
  JSON_RPC_Task first;
  ASSERT_EQ(1u, next(&first));
  EXPECT_EQ(3u, next()) << "what may overtake does";
  EXPECT_EQ(5u, next()) << "another connection does not wait";
  EXPECT_EQ(0u, next());
  EXPECT_TRUE(queue_.empty());
  EXPECT_EQ(2u, queue_.size()) << "those that wait for the lane still count";
  EXPECT_EQ(2u, queue_.size_of(one_.get()));
  EXPECT_TRUE(queue_.has_run(first));
  JSON_RPC_Task second;
  ASSERT_EQ(2u, next(&second));
  EXPECT_EQ(0u, next());
  EXPECT_TRUE(queue_.has_run(second));
  JSON_RPC_Task last;
  ASSERT_EQ(4u, next(&last));
  EXPECT_FALSE(queue_.has_run(last)) << "nobody waits any more";
  EXPECT_EQ(0u, queue_.size());
}

TEST_F(Task_Queue, removal_reaches_those_that_wait_for_a_lane)
{
  push(one_, in_order_, 1);
  push(one_, in_order_, 2);
  push(other_, any_, 3);
  JSON_RPC_Task running;
  ASSERT_EQ(1u, next(&running));
  ASSERT_EQ(3u, next());
  unsigned freed = 0;
  const auto removed =
      queue_.remove([&](const JSON_RPC_Task& task) { return task.from == one_; }, [&] { ++freed; });
  ASSERT_EQ(1u, removed.size());
  EXPECT_EQ(2u, removed[0].key);
  EXPECT_EQ(0u, freed) << "the lane is held by the one that runs";
  EXPECT_EQ(0u, queue_.size());
  EXPECT_FALSE(queue_.has_run(running));
}

TEST_F(Task_Queue, removal_of_the_one_that_got_the_lane_hands_it_on)
{
  push(one_, in_order_, 1);
  push(one_, in_order_, 2);
  push(one_, in_order_, 3);
  JSON_RPC_Task running;
  ASSERT_EQ(1u, next(&running));
  ASSERT_EQ(0u, next());
  ASSERT_TRUE(queue_.has_run(running)); // 2 has the lane now, and is not taken yet
  unsigned freed = 0;
  const auto removed =
      queue_.remove([](const JSON_RPC_Task& task) { return task.key == 2; }, [&] { ++freed; });
  ASSERT_EQ(1u, removed.size());
  EXPECT_EQ(1u, freed);
  EXPECT_EQ(3u, next());
  EXPECT_EQ(0u, queue_.size());
}

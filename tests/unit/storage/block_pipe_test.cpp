#include "storage/block_pipe.h"

#include <gtest/gtest.h>

#include <set>
#include <thread>

namespace
{
using kestrel::Block;
using kestrel::Block_Pipe;

TEST(Block_Pipe, hands_blocks_over_in_order_and_then_ends)
{
  Block_Pipe pipe(3, 100);
  for (unsigned i = 1; i <= 3; ++i) {
    Block* block = pipe.take_free();
    ASSERT_NE(nullptr, block);
    EXPECT_EQ(0u, block->size);
    EXPECT_EQ(100u, block->capacity);
    EXPECT_EQ(0u, reinterpret_cast<uintptr_t>(block->data) % 4096);
    block->size = i;
    pipe.put(block);
  }
  pipe.finish();
  EXPECT_FALSE(pipe.ended());
  for (unsigned i = 1; i <= 3; ++i)
    EXPECT_EQ(i, pipe.take_full()->size);
  EXPECT_EQ(nullptr, pipe.take_full());
  EXPECT_TRUE(pipe.ended());
  EXPECT_EQ("", pipe.failure());
}

TEST(Block_Pipe, never_has_more_blocks_than_allowed)
{
  Block_Pipe pipe(4, 10);
  std::set<Block*> seen;
  std::thread consumer([&] {
    unsigned expected = 0;
    while (Block* block = pipe.take_full()) {
      EXPECT_EQ(expected++ % 11, block->size);
      pipe.give_back(block);
    }
    EXPECT_EQ(10000u, expected);
  });
  for (unsigned i = 0; i < 10000; ++i) {
    Block* block = pipe.take_free();
    seen.insert(block);
    block->size = i % 11;
    pipe.put(block);
  }
  pipe.finish();
  consumer.join();
  EXPECT_LE(seen.size(), 4u);
}

TEST(Block_Pipe, wakes_a_waiting_producer_when_stopped)
{
  Block_Pipe pipe(1, 10);
  ASSERT_NE(nullptr, pipe.take_free());
  std::thread stopper([&] { pipe.stop(); });
  EXPECT_EQ(nullptr, pipe.take_free());
  stopper.join();
  EXPECT_FALSE(pipe.ended());
}

TEST(Block_Pipe, wakes_a_waiting_consumer_when_failed_and_keeps_the_first_reason)
{
  Block_Pipe pipe(1, 10);
  std::thread failer([&] {
    pipe.fail("first");
    pipe.fail("second");
  });
  EXPECT_EQ(nullptr, pipe.take_full());
  failer.join();
  EXPECT_EQ("first", pipe.failure());
  EXPECT_EQ(nullptr, pipe.take_free());
}

TEST(Block_Pipe, drops_queued_blocks_when_stopped)
{
  Block_Pipe pipe(2, 10);
  pipe.put(pipe.take_free());
  pipe.stop();
  EXPECT_EQ(nullptr, pipe.take_full());
}
} // namespace

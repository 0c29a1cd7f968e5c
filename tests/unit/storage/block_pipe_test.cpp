#include "storage/block_pipe.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <thread>
#include <vector>

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

TEST(Block_Pipe, gives_blocks_out_by_number_when_they_are_put_by_number)
{
  Block_Pipe pipe(4, 10);
  for (const unsigned number : {2u, 0u, 3u, 1u}) {
    Block* block = pipe.take_free();
    ASSERT_NE(nullptr, block);
    block->size = number + 1;
    pipe.put(block, number);
  }
  pipe.finish();
  for (unsigned i = 0; i < 4; ++i) {
    Block* block = pipe.take_full();
    ASSERT_NE(nullptr, block);
    EXPECT_EQ(i, block->number);
    EXPECT_EQ(i + 1, block->size);
  }
  EXPECT_EQ(nullptr, pipe.take_full());
  EXPECT_TRUE(pipe.ended());
}

TEST(Block_Pipe, waits_for_the_next_number_although_later_ones_are_there)
{
  Block_Pipe pipe(2, 10);
  Block* first = pipe.take_free();
  Block* second = pipe.take_free();
  pipe.put(second, 1);
  std::thread late([&] { pipe.put(first, 0); });
  EXPECT_EQ(first, pipe.take_full());
  EXPECT_EQ(second, pipe.take_full());
  late.join();
}

TEST(Block_Pipe, gives_every_block_to_one_of_several_consumers_and_the_end_to_all)
{
  const unsigned count = 2000;
  Block_Pipe pipe(3, 10);
  std::vector<uint64_t> seen[3];
  std::vector<std::thread> consumers;
  for (auto& numbers : seen)
    consumers.emplace_back([&pipe, &numbers] {
      while (Block* block = pipe.take_full()) {
        numbers.push_back(block->number);
        pipe.give_back(block);
      }
    });
  for (unsigned i = 0; i < count; ++i)
    pipe.put(pipe.take_free());
  pipe.finish();
  std::set<uint64_t> all;
  for (unsigned i = 0; i < 3; ++i) {
    consumers[i].join();
    EXPECT_TRUE(std::is_sorted(seen[i].begin(), seen[i].end()));
    all.insert(seen[i].begin(), seen[i].end());
  }
  EXPECT_EQ(count, all.size());
  EXPECT_EQ(count - 1, *all.rbegin());
  EXPECT_TRUE(pipe.ended());
}
} // namespace

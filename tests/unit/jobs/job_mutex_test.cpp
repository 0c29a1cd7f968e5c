#include "jobs/job_mutex.h"

#include <ace/Guard_T.h>

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace kestrel_test
{
TEST(Job_Mutexes, are_one_for_each_source)
{
  EXPECT_EQ(Job_Mutex::get("a").get(), Job_Mutex::get("a").get());
  EXPECT_NE(Job_Mutex::get("a").get(), Job_Mutex::get("b").get());
}

TEST(Job_Mutexes, keep_the_second_job_waiting_until_the_first_is_done)
{
  std::atomic<bool> first_done(false);
  std::thread second;
  {
    ACE_Guard<ACE_Thread_Mutex> guard(*Job_Mutex::get("source"));
    ASSERT_TRUE(guard.locked());
    second = std::thread([&] {
      ACE_Guard<ACE_Thread_Mutex> guard(*Job_Mutex::get("source"));
      EXPECT_TRUE(guard.locked());
      EXPECT_TRUE(first_done);
    });
    EXPECT_EQ(-1, Job_Mutex::get("source")->tryacquire());
    first_done = true;
  }
  second.join();
}

TEST(Job_Mutexes, exclude_many_threads)
{
  int shared = 0;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 1000; ++i) {
        ACE_Guard<ACE_Thread_Mutex> guard(*Job_Mutex::get("counter"));
        ++shared;
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(4000, shared);
}
} // namespace kestrel_test

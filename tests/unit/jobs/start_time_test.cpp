#include "jobs/start_time.h"

#include "support/clocks.h"
#include "support/fault_file_system.h"
#include "support/log_capture.h"
#include "support/scoped_env.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace kestrel_test
{
/// Each test lives at another time, because a process remembers what it gave out.
class Start_Times : public testing::Test
{
protected:
  Start_Times() : root_env_("KESTREL_ROOT", root_.path()) {}

  static time_t next_era()
  {
    static time_t era = 1800000000;
    return era += 100000;
  }

  Temp_Dir root_;
  Scoped_Env root_env_;
  Fake_Clock clock_{next_era()};
  const std::string file_ = "var/opt/tarnvik/kestrel3/agent/last_start_time";
};

TEST_F(Start_Times, are_the_present_when_nobody_has_it)
{
  EXPECT_EQ(clock_.now(), kestrel::reserve_start_time());
}

TEST_F(Start_Times, are_the_next_free_second_otherwise)
{
  const time_t now = clock_.now();
  EXPECT_EQ(now, kestrel::reserve_start_time());
  EXPECT_EQ(now + 1, kestrel::reserve_start_time());
  EXPECT_EQ(now + 2, kestrel::reserve_start_time());
  clock_.advance_msec(10000);
  EXPECT_EQ(now + 10, kestrel::reserve_start_time());
}

TEST_F(Start_Times, do_not_repeat_what_another_process_got)
{
  char text[32];
  snprintf(text, sizeof text, "%020lld\n", static_cast<long long>(clock_.now()) + 5);
  root_.write(file_, text);
  EXPECT_EQ(clock_.now() + 6, kestrel::reserve_start_time());
}

TEST_F(Start_Times, begin_anew_after_a_clock_that_ran_ahead)
{
  Log_Capture log;
  char text[32];
  snprintf(text, sizeof text, "%020lld\n", static_cast<long long>(clock_.now()) + 86400);
  root_.write(file_, text);
  EXPECT_EQ(clock_.now(), kestrel::reserve_start_time());
  EXPECT_TRUE(log.expect(LM_WARNING, "is 86400 seconds ahead"));
  EXPECT_EQ(clock_.now() + 1, kestrel::reserve_start_time());
}

TEST_F(Start_Times, do_not_trip_over_a_damaged_file)
{
  root_.write(file_, "rubbish");
  EXPECT_EQ(clock_.now(), kestrel::reserve_start_time());
  EXPECT_EQ(clock_.now() + 1, kestrel::reserve_start_time());
}

TEST_F(Start_Times, are_unique_in_the_process_when_the_file_cannot_be_used)
{
  std::set<time_t> seen;
  unsigned rounds = 0;
  for (const char* const call : {"open", "pwrite", "pread"}) {
    Log_Capture log;
    Fault_File_System files;
    files.fail(call, 1, EIO, true);
    seen.insert(kestrel::reserve_start_time());
    seen.insert(kestrel::reserve_start_time());
    rounds += 2;
    EXPECT_TRUE(files.met()) << call;
    log.allow(LM_WARNING, "cannot be shared with other processes");
  }
  EXPECT_EQ(rounds, seen.size());
}

TEST_F(Start_Times, are_unique_among_threads)
{
  std::mutex mutex;
  std::multiset<time_t> seen;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 50; ++i) {
        const time_t got = kestrel::reserve_start_time();
        const std::lock_guard<std::mutex> guard(mutex);
        seen.insert(got);
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(200u, seen.size());
  EXPECT_EQ(200, *seen.rbegin() - *seen.begin() + 1);
}
} // namespace kestrel_test

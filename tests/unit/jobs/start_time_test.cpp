#include "jobs/start_time.h"

#include "support/clocks.h"
#include "support/fault_file_system.h"
#include "support/log_capture.h"
#include "support/scoped_env.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <ctime>
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

TEST_F(Start_Times, go_on_after_the_last_one_when_the_clock_was_set_back_a_little)
{
  const time_t before = kestrel::reserve_start_time();
  clock_.advance_msec(-60 * 1000);
  EXPECT_EQ(before + 1, kestrel::reserve_start_time());
  EXPECT_EQ(before + 2, kestrel::reserve_start_time());
}

TEST_F(Start_Times, are_the_same_seconds_on_either_side_of_a_change_of_the_local_time)
{
  // Daylight saving time ends two seconds from now.
  const time_t end = clock_.now() + 2;
  struct tm utc;
  ::gmtime_r(&end, &utc);
  const int second = utc.tm_hour * 3600 + utc.tm_min * 60 + utc.tm_sec + 3600; // of the day, in summer time
  char text[64];
  snprintf(text, sizeof text, "CET0CEST-1,0/0,%d/%d:%02d:%02d", utc.tm_yday, second / 3600, second / 60 % 60,
           second % 60);
  const Scoped_Env zone("TZ", text);
  ::tzset();
  const time_t before = end - 1;
  ASSERT_EQ(1, ::localtime(&before)->tm_isdst) << text;
  ASSERT_EQ(0, ::localtime(&end)->tm_isdst) << text;
  for (time_t now = clock_.now(); now < end + 3; ++now) {
    EXPECT_EQ(now, kestrel::reserve_start_time());
    clock_.advance_msec(1000);
  }
}

TEST_F(Start_Times, of_the_second_of_two_equal_hours_have_no_local_time_of_the_first)
{
  const time_t end = 1919293200; // 27 October 2030, 01:00 UTC
  for (const char* const zone_name : {"Europe/Berlin", "Australia/Lord_Howe"}) {
    const bool berlin = std::string(zone_name) == "Europe/Berlin";
    const Scoped_Env zone("TZ", zone_name);
    ::tzset();
    // Lord Howe Island sets its clocks back by half an hour, in April.
    const time_t change = berlin ? end : 1901718000;
    const time_t back = berlin ? 3600 : 1800;
    const time_t before = change - 1;
    ASSERT_EQ(1, ::localtime(&before)->tm_isdst);
    ASSERT_EQ(0, ::localtime(&change)->tm_isdst);
    const auto set_time = [&](time_t time) { clock_.advance_msec((int64_t(time) - clock_.now()) * 1000); };
    Log_Capture log;
    log.allow(LM_WARNING, "begin anew");
    set_time(change - back + 60);
    EXPECT_EQ(change - back + 60, kestrel::reserve_start_time());
    EXPECT_EQ(change - back + 61, kestrel::reserve_start_time());
    set_time(change - 1);
    EXPECT_EQ(change - 1, kestrel::reserve_start_time());
    set_time(change + 60);
    EXPECT_EQ(change + 62, kestrel::reserve_start_time()) << "the names of the first two runs are taken";
    set_time(change + 70);
    EXPECT_EQ(change + 70, kestrel::reserve_start_time());
    set_time(change + back - 1);
    EXPECT_EQ(change + back, kestrel::reserve_start_time()) << "the last second of the hour is taken too";
    set_time(change + back + 86400);
    EXPECT_EQ(change + back + 86400, kestrel::reserve_start_time());
    // Another process reads the same.
    EXPECT_EQ(42u, kestrel_test::read_file(root_ / file_).find(' ') + 21) << "one line, and the end: " << kestrel_test::read_file(root_ / file_);
  }
}

TEST_F(Start_Times, of_another_process_in_the_first_of_two_equal_hours_are_taken_too)
{
  const Scoped_Env zone("TZ", "Europe/Berlin");
  ::tzset();
  const time_t change = 1950742800; // 26 October 2031, 01:00 UTC
  clock_.advance_msec((int64_t(change) - clock_.now()) * 1000);
  char text[64];
  snprintf(text, sizeof text, "%020lld\n%020lld\n", static_cast<long long>(change) - 10,
           static_cast<long long>(change) - 3600);
  root_.write(file_, text);
  EXPECT_EQ(change + 1, kestrel::reserve_start_time());
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

#include "agent/job_scheduler.h"
#include "jobs/job_definition.h"
#include "support/clocks.h"
#include "support/scoped_env.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>

using namespace kestrel;

namespace
{
// 2023-11-14 22:13:20 UTC, a Tuesday.
constexpr time_t start = 1700000000;
constexpr time_t quarter_past = start + 100; // 22:15:00
constexpr time_t utc_day = start - start % 86400;
constexpr int64_t hour_msec = 3600 * 1000;

class Job_Scheduler_Test : public testing::Test
{
protected:
  static Timed_Schedule schedule(const std::string& line, bool make_up = false)
  {
    Timed_Schedule made;
    std::string error;
    EXPECT_TRUE(Cron_Schedule::parse(line, "UTC", made.cron, error)) << error;
    made.make_up = make_up;
    return made;
  }
  void set(const std::string& id, const std::string& line, bool make_up = false, time_t after = start)
  {
    scheduler_.set(id, {schedule(line, make_up)}, after);
  }
  time_t next_of(const std::string& id) const
  {
    time_t next = 0;
    EXPECT_TRUE(scheduler_.next_of(id, next));
    return next;
  }

  kestrel_test::Fake_Clock clock_{start};
  Job_Scheduler scheduler_;
};
} // namespace

TEST_F(Job_Scheduler_Test, has_a_run_due_once_at_its_time)
{
  set("a", "15 * * * *");
  EXPECT_TRUE(scheduler_.take_due().empty());
  EXPECT_EQ(quarter_past, next_of("a"));
  clock_.advance_msec(99 * 1000);
  EXPECT_TRUE(scheduler_.take_due().empty());
  clock_.advance_msec(1000);
  const auto due = scheduler_.take_due();
  ASSERT_EQ(1u, due.size());
  EXPECT_EQ("a", due[0].id);
  EXPECT_EQ(quarter_past, due[0].at);
  EXPECT_TRUE(due[0].run);
  EXPECT_FALSE(due[0].late);
  EXPECT_EQ(0u, due[0].missed);
  EXPECT_TRUE(scheduler_.take_due().empty());
  EXPECT_EQ(quarter_past + 3600, next_of("a"));
}

TEST_F(Job_Scheduler_Test, tells_how_far_it_has_looked)
{
  EXPECT_EQ(0, scheduler_.looked_until());
  EXPECT_TRUE(scheduler_.take_due().empty());
  clock_.advance_msec(5000);
  EXPECT_EQ(start, scheduler_.looked_until());
  EXPECT_TRUE(scheduler_.take_due().empty());
  EXPECT_EQ(start + 5, scheduler_.looked_until());
}

TEST_F(Job_Scheduler_Test, tells_what_was_missed_while_the_agent_was_down)
{
  set("skips", "15 * * * *", false, start - 5 * 3600);
  set("once", "15 * * * *", true, start - 5 * 3600);
  const auto due = scheduler_.take_due();
  ASSERT_EQ(2u, due.size());
  const auto& once = due[0].id == "once" ? due[0] : due[1];
  const auto& skips = due[0].id == "once" ? due[1] : due[0];
  EXPECT_TRUE(once.run);
  EXPECT_TRUE(once.late);
  EXPECT_FALSE(skips.run);
  for (const auto* each : {&once, &skips}) {
    EXPECT_EQ(5u, each->missed);
    EXPECT_EQ(quarter_past - 5 * 3600, each->first_missed);
    EXPECT_EQ(quarter_past - 3600, each->at);
  }
  EXPECT_TRUE(scheduler_.take_due().empty());
  EXPECT_EQ(quarter_past, next_of("once"));
}

TEST_F(Job_Scheduler_Test, a_short_stop_over_the_time_of_a_run_misses_nothing)
{
  clock_.advance_msec(160 * 1000); // a minute late
  set("a", "15 * * * *");
  const auto due = scheduler_.take_due();
  ASSERT_EQ(1u, due.size());
  EXPECT_TRUE(due[0].run);
  EXPECT_FALSE(due[0].late);
  EXPECT_EQ(0u, due[0].missed);
}

TEST_F(Job_Scheduler_Test, a_clock_that_jumps_forward_misses_the_times_between)
{
  set("a", "15 * * * *");
  EXPECT_TRUE(scheduler_.take_due().empty());
  clock_.advance_msec(10 * hour_msec);
  const auto due = scheduler_.take_due();
  ASSERT_EQ(1u, due.size());
  EXPECT_FALSE(due[0].run);
  EXPECT_EQ(10u, due[0].missed);
}

TEST_F(Job_Scheduler_Test, a_clock_that_goes_back_a_little_repeats_nothing)
{
  set("a", "15 * * * *");
  clock_.advance_msec(101 * 1000);
  ASSERT_EQ(1u, scheduler_.take_due().size());
  clock_.advance_msec(-2 * hour_msec);
  EXPECT_TRUE(scheduler_.take_due().empty());
  clock_.advance_msec(2 * hour_msec);
  EXPECT_TRUE(scheduler_.take_due().empty()) << "the time has come before";
  clock_.advance_msec(hour_msec);
  EXPECT_EQ(1u, scheduler_.take_due().size());
}

TEST_F(Job_Scheduler_Test, a_clock_that_was_far_ahead_does_not_hold_up_the_schedules)
{
  clock_.advance_msec(400 * 24 * hour_msec);
  set("a", "15 * * * *", false, start + 400 * 24 * 3600);
  EXPECT_TRUE(scheduler_.take_due().empty());
  clock_.advance_msec(-400 * 24 * hour_msec);
  EXPECT_TRUE(scheduler_.take_due().empty());
  EXPECT_EQ(quarter_past, next_of("a"));
  set("b", "15 * * * *", false, start + 400 * 24 * 3600);
  EXPECT_EQ(quarter_past, next_of("b")) << "a stored time far in the future counts as now";
}

TEST_F(Job_Scheduler_Test, follows_a_changed_definition)
{
  set("a", "15 * * * *");
  set("a", "30 * * * *");
  EXPECT_EQ(quarter_past + 900, next_of("a"));
  clock_.advance_msec(101 * 1000);
  EXPECT_TRUE(scheduler_.take_due().empty());
  scheduler_.remove("a");
  clock_.advance_msec(hour_msec);
  EXPECT_TRUE(scheduler_.take_due().empty());
  time_t next = 0;
  EXPECT_FALSE(scheduler_.next_of("a", next));
  EXPECT_FALSE(scheduler_.next_due(next));
  scheduler_.remove("a");
  scheduler_.set("a", {}, start);
  EXPECT_EQ(0u, scheduler_.size());
}

TEST_F(Job_Scheduler_Test, two_schedules_of_one_definition_that_are_due_together_make_one_run)
{
  scheduler_.set("a", {schedule("15 * * * *"), schedule("15 22 * * *", true), schedule("20 * * * *")}, start);
  clock_.advance_msec(101 * 1000);
  const auto due = scheduler_.take_due();
  ASSERT_EQ(1u, due.size());
  EXPECT_TRUE(due[0].run);
  EXPECT_FALSE(due[0].late);
  EXPECT_EQ(quarter_past + 300, next_of("a"));
}

TEST_F(Job_Scheduler_Test, counts_every_time_that_was_missed_however_many_they_are)
{
  const time_t year = 365 * 24 * 3600;
  const time_t minute = start - start % 60;
  set("a", "* * * * *", false, minute - year);
  set("b", "* * * * *", true, minute - year);
  set("daily", "0 2 * * *", true, minute - year);
  set("leap", "0 2 29 2 *", true, minute - year); // the one of 2024 has not come
  const auto due = scheduler_.take_due();
  ASSERT_EQ(3u, due.size());
  for (unsigned index : {0u, 1u}) {
    EXPECT_TRUE(due[index].run) << "the last one is in time";
    EXPECT_FALSE(due[index].late);
    EXPECT_EQ(minute, due[index].at);
    EXPECT_EQ(365u * 24 * 60 - 1, due[index].missed);
    EXPECT_FALSE(due[index].more);
    EXPECT_EQ(minute - year + 60, due[index].first_missed);
  }
  EXPECT_TRUE(due[2].late);
  EXPECT_EQ(365u, due[2].missed);
  EXPECT_EQ(minute + 60, next_of("a"));
  EXPECT_TRUE(scheduler_.take_due().empty());
  clock_.advance_msec(60 * 1000);
  const auto next = scheduler_.take_due();
  ASSERT_EQ(2u, next.size());
  EXPECT_EQ(0u, next[0].missed);
  EXPECT_TRUE(next[0].run);
}

TEST_F(Job_Scheduler_Test, an_agent_that_was_away_for_decades_goes_on_at_once)
{
  const time_t before = start - 40 * 366 * 24 * 3600LL;
  set("once", "* * * * 1-5", true, before);
  set("skip", "* 1 * * *", false, before);
  const auto due = scheduler_.take_due();
  ASSERT_EQ(2u, due.size());
  for (const auto& each : due) {
    const bool once = each.id == "once";
    EXPECT_TRUE(each.more);
    EXPECT_GE(each.missed, Cron_Schedule::max_counted_days * 60ull);
    EXPECT_EQ(once, each.run) << "this minute is in time, half past one is not";
    EXPECT_EQ(once ? start - start % 60 : utc_day + 2 * 3600 - 60, each.at) << "the last one that has passed";
  }
  EXPECT_EQ(start - start % 60 + 60, next_of("once"));
  EXPECT_EQ(utc_day + 25 * 3600, next_of("skip"));
}

namespace
{
struct Night {
  const char* zone;
  time_t change;    ///< when the clocks are set
  const char* line; ///< a time of day that is missing, or comes twice
  time_t due;       ///< when it is due, behind the change
  unsigned often;   ///< times of every ten minutes, from six hours before the change to six behind it
};
// Berlin's clocks are set by an hour, those of Lord Howe Island by half an hour.
const Night nights[] = {{"Europe/Berlin", 1774746000, "30 2 * * *", 0, 72},
                        {"Europe/Berlin", 1792890000, "30 2 * * *", -1800, 66},
                        {"Australia/Lord_Howe", 1791041400, "15 2 * * *", 0, 72},
                        {"Australia/Lord_Howe", 1775314800, "45 1 * * *", -900, 69}};
constexpr time_t half = 6 * 3600;

Timed_Schedule in_zone(const std::string& line, const char* zone)
{
  Timed_Schedule made;
  std::string error;
  EXPECT_TRUE(Cron_Schedule::parse(line, zone, made.cron, error)) << error;
  return made;
}
} // namespace

TEST(Job_Scheduler_Nights, a_time_that_is_missing_or_comes_twice_makes_one_run)
{
  for (const Night& night : nights) {
    SCOPED_TRACE(std::string(night.zone) + " " + std::to_string(night.change));
    kestrel_test::Fake_Clock clock(night.change - half);
    Job_Scheduler scheduler;
    scheduler.set("once", {in_zone(night.line, night.zone)}, clock.now());
    scheduler.set("often", {in_zone("*/10 * * * *", night.zone)}, clock.now());
    std::vector<time_t> once, often;
    while (clock.now() < night.change + half) {
      clock.advance_msec(20 * 1000);
      for (const Job_Scheduler::Due& due : scheduler.take_due()) {
        EXPECT_TRUE(due.run && !due.late && due.missed == 0) << due.id;
        (due.id == "once" ? once : often).push_back(due.at);
      }
    }
    EXPECT_EQ(std::vector<time_t>{night.change + night.due}, once);
    EXPECT_EQ(night.often, often.size());
    EXPECT_EQ(often.end(), std::adjacent_find(often.begin(), often.end()));
  }
}

TEST(Job_Scheduler_Nights, are_counted_alike_by_an_agent_that_was_away)
{
  for (const Night& night : nights) {
    SCOPED_TRACE(std::string(night.zone) + " " + std::to_string(night.change));
    kestrel_test::Fake_Clock clock(night.change + half + 300);
    Job_Scheduler scheduler;
    scheduler.set("1", {in_zone(night.line, night.zone)}, night.change - half);
    scheduler.set("2", {in_zone("*/10 * * * *", night.zone)}, night.change - half);
    const auto due = scheduler.take_due();
    ASSERT_EQ(2u, due.size());
    for (const Job_Scheduler::Due& each : due) {
      EXPECT_EQ(each.id == "1" ? 1u : night.often, each.missed);
    }
  }
}

TEST(Cron_Count, is_that_of_the_times_one_by_one)
{
  const time_t begin = 1774746000 - 40 * 24 * 3600 - 1234; // over both changes of 2026
  for (const char* zone : {"Europe/Berlin", "Australia/Lord_Howe", "UTC", "America/New_York"})
    for (const char* line : {"*/7 * * * *", "30 2 * * *", "15 1,2 * * sun", "0 0 29 2 *", "59 23 31 * *", "* 2 * 4,10 *"})
      for (const time_t length : {0, 59, 3600, 86399, 86400, 300 * 86400}) {
        const Cron_Schedule cron = in_zone(line, zone).cron;
        const time_t end = begin + length;
        uint64_t count = 0;
        time_t last = 0, next = 0;
        for (time_t at = begin; cron.next_after(at, next) && next <= end; at = next, ++count)
          last = next;
        bool complete = false;
        EXPECT_EQ(count, cron.count(begin, end, complete)) << zone << " " << line << " " << length;
        EXPECT_TRUE(complete);
        time_t found = 0;
        EXPECT_EQ(count > 0, cron.last_until(end, begin, found));
        EXPECT_EQ(last, found) << zone << " " << line << " " << length;
      }
}

TEST_F(Job_Scheduler_Test, ten_thousand_schedules_cost_little_until_they_are_due)
{
  for (int number = 0; number < 10000; ++number)
    set("job" + std::to_string(number),
        std::to_string(number % 60) + " " + std::to_string(number % 24) + " * * *");
  const auto before = std::chrono::steady_clock::now();
  for (int look = 0; look < 1000; ++look)
    EXPECT_TRUE(scheduler_.take_due().empty());
  EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(5));
  clock_.advance_msec(24 * hour_msec);
  EXPECT_EQ(10000u, scheduler_.take_due().size());
}

namespace
{
std::string schedule_refusal(const std::string& text, int type = 1)
{
  Job_Definition_Fields fields;
  fields.schedules = {Job_Schedule_Ptr(new Job_Schedule(type, text))};
  std::vector<Timed_Schedule> schedules;
  bool on_demand = false;
  std::string error;
  EXPECT_FALSE(read_schedules(Job_Definition(fields), schedules, on_demand, error)) << text;
  return error;
}
} // namespace

TEST(Schedules, are_read_from_a_definition)
{
  Job_Definition_Fields fields;
  for (const auto& each : std::vector<std::pair<int, std::string>>{
           {1, R"({"type":1,"cron":"0 2 * * *","time_zone":"Europe/Berlin","missed":"once"})"},
           {1, R"({"type":1,"cron":"@daily"})"},
           {1, R"({"type":1,"cron":"@daily","enabled":false})"},
           {7, R"({"type":7})"}})
    fields.schedules.push_back(Job_Schedule_Ptr(new Job_Schedule(each.first, each.second)));
  std::vector<Timed_Schedule> schedules;
  bool on_demand = false;
  std::string error;
  ASSERT_TRUE(read_schedules(Job_Definition(fields), schedules, on_demand, error)) << error;
  ASSERT_EQ(2u, schedules.size());
  EXPECT_TRUE(schedules[0].make_up);
  EXPECT_FALSE(schedules[1].make_up);
  EXPECT_TRUE(on_demand);
}

TEST(Schedules, are_refused_with_their_number_and_reason)
{
  EXPECT_NE(std::string::npos, schedule_refusal(R"({"type":1})").find("\"schedules\", number 1: "));
  EXPECT_NE(std::string::npos, schedule_refusal(R"({"type":1,"cron":"x"})").find("five fields"));
  EXPECT_NE(std::string::npos,
            schedule_refusal(R"({"type":1,"cron":"@daily","missed":"all"})").find("\"missed\""));
  EXPECT_NE(std::string::npos,
            schedule_refusal(R"({"type":1,"cron":"@daily","time_zone":"X"})").find("time zone"));
  EXPECT_NE(std::string::npos, schedule_refusal(R"({"type":1,"cron":"@daily","enabled":1})").find("enabled"));
  EXPECT_NE(std::string::npos,
            schedule_refusal(R"({"type":1,"cron":"30 2 31 2 *","enabled":false})").find("no day"))
      << "one that is switched off is checked too";
  EXPECT_NE(std::string::npos, schedule_refusal(R"({"type":3,"cron":"@daily"})", 3).find("\"type\""));
}

#include "agent/cron.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <limits>

using kestrel::Cron_Schedule;

namespace
{
/// A time_t of 32 bits ends on 2038-01-19 at 03:14:07.
constexpr bool wide_times = sizeof(time_t) > 4;

/// "2026-03-29 02:00:00" as UTC.
time_t utc(const std::string& text)
{
  struct tm parts = {};
  EXPECT_NE(nullptr, ::strptime(text.c_str(), "%Y-%m-%d %H:%M:%S", &parts)) << text;
  return ::timegm(&parts);
}

std::string utc_text(time_t time)
{
  struct tm parts = {};
  ::gmtime_r(&time, &parts);
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &parts);
  return text;
}

Cron_Schedule parsed(const std::string& line, const std::string& zone)
{
  Cron_Schedule schedule;
  std::string error;
  EXPECT_TRUE(Cron_Schedule::parse(line, zone, schedule, error)) << error;
  return schedule;
}

std::string refusal(const std::string& line, const std::string& zone = "UTC")
{
  Cron_Schedule schedule;
  std::string error;
  EXPECT_FALSE(Cron_Schedule::parse(line, zone, schedule, error)) << line;
  return error;
}

/// The next times, all in UTC.
std::vector<std::string> times(const std::string& line, const std::string& zone, const std::string& from,
                               unsigned count)
{
  const Cron_Schedule schedule = parsed(line, zone);
  std::vector<std::string> found;
  time_t time = utc(from);
  while (found.size() < count && schedule.next_after(time, time))
    found.push_back(utc_text(time));
  return found;
}

typedef std::vector<std::string> Times;
} // namespace

TEST(Cron, knows_the_fields_with_lists_ranges_steps_and_names)
{
  struct {
    const char* line;
    const char* from;
    const char* next;
  } const table[] = {
      {"* * * * *", "2026-01-01 00:00:00", "2026-01-01 00:01:00"},
      {"* * * * *", "2026-01-01 00:00:59", "2026-01-01 00:01:00"},
      {"0 2 * * *", "2026-01-01 02:00:00", "2026-01-02 02:00:00"},
      {"0 2 * * *", "2026-01-01 01:59:59", "2026-01-01 02:00:00"},
      {"*/15 * * * *", "2026-01-01 00:46:00", "2026-01-01 01:00:00"},
      {"5-50/20 * * * *", "2026-01-01 00:25:00", "2026-01-01 00:45:00"},
      {"10,5 3,1 * * *", "2026-01-01 01:05:00", "2026-01-01 01:10:00"},
      {"0 0 1 JAN,Jul *", "2026-01-02 00:00:00", "2026-07-01 00:00:00"},
      {"0 0 * mar-may *", "2026-05-31 00:00:00", "2027-03-01 00:00:00"},
      {"30 4 * * mon-fri", "2026-01-02 04:30:00", "2026-01-05 04:30:00"}, // from a Friday
      {"0 0 * * 0", "2026-01-01 00:00:00", "2026-01-04 00:00:00"},
      {"0 0 * * 7", "2026-01-01 00:00:00", "2026-01-04 00:00:00"},
      {"0 0 * * sat-sun", "2026-01-03 00:00:00", "2026-01-04 00:00:00"},
      {"0 0 * * 5-7", "2026-01-03 00:00:00", "2026-01-04 00:00:00"},
      {"  0\t0  1 1  * ", "2026-01-01 00:00:00", "2027-01-01 00:00:00"},
      {"@hourly", "2026-01-01 00:00:01", "2026-01-01 01:00:00"},
      {"@daily", "2026-01-01 00:00:00", "2026-01-02 00:00:00"},
      {"@weekly", "2026-01-01 00:00:00", "2026-01-04 00:00:00"},
      {"@Monthly", "2026-01-01 00:00:00", "2026-02-01 00:00:00"},
      {"@yearly", "2026-01-01 00:00:00", "2027-01-01 00:00:00"},
      {"59 23 31 12 *", "2026-12-31 23:59:00", "2027-12-31 23:59:00"},
      {"0 0 31 * *", "2026-01-31 00:00:00", "2026-03-31 00:00:00"},
  };
  for (const auto& each : table)
    EXPECT_EQ(Times{each.next}, times(each.line, "UTC", each.from, 1)) << each.line << " from " << each.from;
}

TEST(Cron, takes_either_day_field_when_both_are_restricted)
{
  EXPECT_EQ((Times{"2026-06-13 00:00:00", "2026-06-15 00:00:00", "2026-06-19 00:00:00"}),
            times("0 0 13,15 6 fri", "UTC", "2026-06-12 00:00:00", 3)); // the 12th and 19th are Fridays
  EXPECT_EQ((Times{"2026-06-19 00:00:00", "2026-07-03 00:00:00"}),
            times("0 0 */2 * fri", "UTC", "2026-06-05 00:00:00", 2))
      << "a field with a star restricts the other one";
}

TEST(Cron, finds_leap_days)
{
  EXPECT_EQ((Times{"2028-02-29 12:00:00", "2032-02-29 12:00:00"}),
            times("0 12 29 2 *", "UTC", "2026-01-01 00:00:00", 2));
  if (wide_times) {
    EXPECT_EQ(Times{"2104-02-29 12:00:00"}, times("0 12 29 2 *", "UTC", "2096-03-01 00:00:00", 1))
        << "2100 is no leap year";
  }
}

TEST(Cron, moves_a_time_that_the_clocks_skip_to_the_first_moment_after_the_gap)
{
  // Berlin, 29 March 2026: 02:00 is 03:00 at once (01:00 UTC). New York, 8 March: 07:00 UTC.
  EXPECT_EQ((Times{"2026-03-28 01:30:00", "2026-03-29 01:00:00", "2026-03-30 00:30:00"}),
            times("30 2 * * *", "Europe/Berlin", "2026-03-28 00:00:00", 3));
  EXPECT_EQ((Times{"2026-03-07 07:30:00", "2026-03-08 07:00:00", "2026-03-09 06:30:00"}),
            times("30 2 * * *", "America/New_York", "2026-03-07 00:00:00", 3));
  EXPECT_EQ((Times{"2026-03-29 00:45:00", "2026-03-29 01:00:00", "2026-03-29 01:15:00"}),
            times("*/15 * * * *", "Europe/Berlin", "2026-03-29 00:30:00", 3))
      << "the times in the gap and the moment after it are one";
}

TEST(Cron, takes_a_time_that_comes_twice_only_the_first_time)
{
  // Berlin, 25 October 2026: 03:00 is 02:00 again (01:00 UTC). New York, 1 November: 06:00 UTC.
  EXPECT_EQ((Times{"2026-10-24 00:30:00", "2026-10-25 00:30:00", "2026-10-26 01:30:00"}),
            times("30 2 * * *", "Europe/Berlin", "2026-10-24 00:00:00", 3));
  EXPECT_EQ((Times{"2026-10-31 05:30:00", "2026-11-01 05:30:00", "2026-11-02 06:30:00"}),
            times("30 1 * * *", "America/New_York", "2026-10-31 00:00:00", 3));
  EXPECT_EQ((Times{"2026-10-25 00:30:00", "2026-10-25 02:00:00"}),
            times("*/30 * * * *", "Europe/Berlin", "2026-10-25 00:00:00", 2));
  EXPECT_EQ(Times{"2026-10-26 01:30:00"}, times("30 2 * * *", "Europe/Berlin", "2026-10-25 01:10:00", 1))
      << "asked in the second of the two hours";
}

TEST(Cron, follows_the_rules_of_a_zone_beyond_its_listed_changes)
{
  if (!wide_times)
    GTEST_SKIP() << "times of 32 bits end with the changes that are listed";
  EXPECT_EQ((Times{"2060-01-15 11:00:00", "2060-07-15 10:00:00"}),
            times("0 12 15 1,7 *", "Europe/Berlin", "2060-01-01 00:00:00", 2));
}

TEST(Cron, computes_without_touching_the_zone_of_the_process)
{
  const time_t noon = utc("2026-07-01 12:00:00");
  struct tm before = {}, after = {};
  ::localtime_r(&noon, &before);
  time_t next = 0;
  EXPECT_TRUE(parsed("0 2 * * *", "Asia/Tokyo").next_after(noon, next));
  ::localtime_r(&noon, &after);
  EXPECT_EQ(before.tm_hour, after.tm_hour);
  EXPECT_EQ("2026-07-01 17:00:00", utc_text(next));
}

TEST(Cron, refuses_what_never_comes)
{
  EXPECT_NE(std::string::npos, refusal("30 2 31 2 *").find("no day is ever like that"));
  refusal("0 0 30,31 2 *");
  refusal("0 0 31 4,6,9,11 *");
  parsed("0 0 31 2 mon", "UTC"); // a Monday in February is enough
}

TEST(Cron, names_the_field_that_it_refuses)
{
  EXPECT_NE(std::string::npos,
            refusal("60 * * * *").find("the minute \"60\" is out of range; allowed are 0 to 59"));
  EXPECT_NE(std::string::npos, refusal("* 24 * * *").find("the hour"));
  EXPECT_NE(std::string::npos, refusal("* * 0 * *").find("the day of the month"));
  EXPECT_NE(std::string::npos, refusal("* * * 13 *").find("the month"));
  EXPECT_NE(std::string::npos, refusal("* * * * 8").find("the day of the week"));
  EXPECT_NE(std::string::npos, refusal("* * * foo *").find("\"foo\""));
  EXPECT_NE(std::string::npos, refusal("5-1 * * * *").find("runs backwards"));
  EXPECT_NE(std::string::npos, refusal("*/0 * * * *").find("is not 1 or more"));
  EXPECT_NE(std::string::npos, refusal("5/3 * * * *").find("single value"));
  EXPECT_NE(std::string::npos, refusal("1,,2 * * * *").find("\"\""));
  EXPECT_NE(std::string::npos, refusal("-1 * * * *").find("minute"));
  EXPECT_NE(std::string::npos, refusal("* * * *").find("five fields"));
  EXPECT_NE(std::string::npos, refusal("* * * * * *").find("five fields"));
  EXPECT_NE(std::string::npos, refusal("").find("five fields"));
  EXPECT_NE(std::string::npos, refusal("@reboot").find("@hourly"));
  EXPECT_NE(std::string::npos, refusal("1 * * * mon#2").find("mon#2"));
  EXPECT_NE(std::string::npos, refusal(std::string(2000, '*')).find("longer than"));
}

TEST(Cron, refuses_time_zones_that_the_host_does_not_know)
{
  for (const char* zone : {"Europe/Atlantis", "../../etc/passwd", "/etc/localtime", ":Europe/Berlin",
                           "Europe", "libc:UTC", "Fixed/UTC+01:00:00", "zone.tab", " ", "Europe/Berlin\n"})
    EXPECT_NE(std::string::npos, refusal("0 2 * * *", zone).find("time zone")) << zone;
  parsed("0 2 * * *", "");
  parsed("0 2 * * *", "Etc/GMT+5");
}

TEST(Cron, has_no_next_time_when_it_was_never_parsed_or_the_years_are_over)
{
  time_t next = 7;
  EXPECT_FALSE(Cron_Schedule().next_after(0, next));
  if (wide_times) {
    EXPECT_FALSE(parsed("* * * * *", "UTC").next_after(utc("9999-12-31 23:59:00"), next));
  }
  EXPECT_EQ(7, next);
}

TEST(Cron, has_no_next_time_that_the_type_cannot_hold)
{
  const time_t last = std::numeric_limits<time_t>::max();
  time_t next = 7;
  for (const char* zone : {"UTC", "Europe/Berlin", "Pacific/Auckland"}) {
    EXPECT_FALSE(parsed("* * * * *", zone).next_after(last, next)) << zone;
    EXPECT_FALSE(parsed("* * * * *", zone).last_until(last, last - 1, next)) << zone;
  }
  EXPECT_EQ(7, next);
  if (!wide_times) {
    EXPECT_FALSE(parsed("0 12 29 2 *", "UTC").next_after(utc("2037-01-01 00:00:00"), next)) << "2040";
    EXPECT_EQ(7, next);
    bool complete = false;
    EXPECT_EQ(18u * 24 + 4, parsed("@hourly", "UTC").count(utc("2037-12-31 23:59:59"), last, complete));
    EXPECT_TRUE(complete);
  }
}

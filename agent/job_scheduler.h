#pragma once

#include "agent/cron.h"

#include <cstdint>
#include <ctime>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

class Job_Definition;

namespace kestrel
{
/// One schedule of a definition that has times.
struct Timed_Schedule {
  Cron_Schedule cron;
  bool make_up = false; ///< a missed run is made up for, once, as soon as possible
};

/// Reads the schedules of a definition: {"type":1,"cron","time_zone","missed":"skip"|"once","enabled"}, or
/// {"type":7} for on demand, which has no times. Schedules that are not enabled are checked and left out.
/// Errors: false with `error` naming the schedule, the key and what is allowed.
[[nodiscard]] bool read_schedules(const Job_Definition& definition, std::vector<Timed_Schedule>& schedules,
                                  bool& on_demand, std::string& error);

/// Knows when the runs of all definitions are due, by kestrel::clock()'s wall time. Thousands of schedules
/// cost nothing until one is due.
///
/// A time that is noticed late by more than lateness_sec was missed: the agent did not run, the host slept,
/// or its clock was set forward. When the clock is set back a little, times that have passed are not due
/// again; when it is set back by more than back_step_sec everything counts from the new time.
///
/// However long the agent was away, every schedule is looked at once: take_due() takes microseconds for a
/// schedule whose times were passed by days, a few milliseconds after years.
/// Threads: one owner at a time.
class Job_Scheduler
{
public:
  static constexpr time_t lateness_sec = 120;
  static constexpr time_t back_step_sec = 3 * 3600;
  struct Due {
    std::string id;
    time_t at = 0;       ///< the last time that has passed
    bool run = false;    ///< a run is to begin
    bool late = false;   ///< it makes up for a missed one
    uint64_t missed = 0; ///< times without a run, of all schedules; `at` is one unless it is in time
    bool more = false;   ///< there were more than `missed`: Cron_Schedule::max_counted_days
    time_t first_missed = 0;
  };

  /// Sets or replaces the schedules of a definition; times up to and including `after` are over.
  void set(const std::string& id, std::vector<Timed_Schedule> schedules, time_t after);
  void remove(const std::string& id);

  /// What has become due since the last call, at most one entry for each definition.
  std::vector<Due> take_due();
  /// The time up to which take_due() has looked; 0 before its first call.
  time_t looked_until() const { return looked_until_; }
  /// False when nothing will ever be due.
  [[nodiscard]] bool next_due(time_t& next) const;
  [[nodiscard]] bool next_of(const std::string& id, time_t& next) const;
  std::size_t size() const { return jobs_.size(); }

private:
  struct Scheduled {
    Timed_Schedule schedule;
    time_t next = 0; ///< 0: never again
  };
  typedef std::vector<Scheduled> Job;

  void plan(const std::string& id, Job& job, time_t after);
  static time_t earliest(const Job& job);
  static void pass(Scheduled& scheduled, time_t now, Due& due);
  void begin_again(time_t now);

  std::map<std::string, Job> jobs_;
  std::set<std::pair<time_t, std::string>> queue_;
  time_t seen_ = 0; ///< the latest time that take_due() has seen
  time_t looked_until_ = 0;
};
} // namespace kestrel

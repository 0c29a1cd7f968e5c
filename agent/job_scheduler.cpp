#include "agent/job_scheduler.h"

#include "base/clock.h"
#include "base/ignore_result.h"
#include "jobs/job_definition.h"
#include "json/json_util.h"

#include <algorithm>
#include <stdexcept>

namespace kestrel
{
namespace
{
constexpr int timed_type = 1;
constexpr std::size_t max_schedules = 100;

Timed_Schedule timed_schedule(const json_spirit::Object& object)
{
  Timed_Schedule schedule;
  std::string zone;
  std::string missed = "skip";
  optional(object, "time_zone", zone);
  optional(object, "missed", missed);
  if (missed != "skip" && missed != "once")
    throw std::runtime_error("\"missed\" must be \"skip\" or \"once\"");
  schedule.make_up = missed == "once";
  std::string problem;
  if (!Cron_Schedule::parse(required<std::string>(object, "cron"), zone, schedule.cron, problem))
    throw std::runtime_error(problem);
  return schedule;
}
} // namespace

bool read_schedules(const Job_Definition& definition, std::vector<Timed_Schedule>& schedules, bool& on_demand,
                    std::string& error)
{
  std::vector<Timed_Schedule> found;
  bool found_on_demand = false;
  unsigned number = 0;
  try {
    if (definition.schedules().size() > max_schedules)
      throw std::runtime_error("there are more than " + std::to_string(max_schedules));
    for (const Job_Schedule_Ptr& each : definition.schedules()) {
      ++number;
      if (each->type() == Job_Schedule::ON_DEMAND) {
        found_on_demand = true;
        continue;
      }
      if (each->type() != timed_type)
        throw std::runtime_error("\"type\" must be 1 (times) or 7 (on demand)");
      json_spirit::Value value;
      if (!read_json(each->text(), value, error))
        return false;
      bool enabled = true;
      optional(value.get_obj(), "enabled", enabled);
      const Timed_Schedule schedule = timed_schedule(value.get_obj());
      if (enabled)
        found.push_back(schedule);
    }
  } catch (const std::exception& problem) {
    error = "job definition, \"schedules\", number " + std::to_string(number) + ": " + problem.what();
    return false;
  }
  schedules.swap(found);
  on_demand = found_on_demand;
  return true;
}

void Job_Scheduler::set(const std::string& id, std::vector<Timed_Schedule> schedules, time_t after)
{
  remove(id);
  if (schedules.empty())
    return;
  const time_t now = clock().now();
  // A time in the far future is that of a clock that was wrong.
  if (after > now + back_step_sec)
    after = now;
  Job job;
  for (Timed_Schedule& schedule : schedules) {
    Scheduled scheduled;
    scheduled.schedule = std::move(schedule);
    job.push_back(std::move(scheduled));
  }
  plan(id, jobs_[id] = std::move(job), after);
}

void Job_Scheduler::remove(const std::string& id)
{
  const auto found = jobs_.find(id);
  if (found == jobs_.end())
    return;
  queue_.erase({earliest(found->second), id});
  jobs_.erase(found);
}

time_t Job_Scheduler::earliest(const Job& job)
{
  time_t first = 0;
  for (const Scheduled& each : job)
    if (each.next != 0 && (first == 0 || each.next < first))
      first = each.next;
  return first;
}

void Job_Scheduler::plan(const std::string& id, Job& job, time_t after)
{
  for (Scheduled& each : job)
    if (!each.schedule.cron.next_after(after, each.next))
      each.next = 0;
  if (const time_t first = earliest(job))
    queue_.insert({first, id});
}

/// Moves one schedule behind `now` and tells what that means for its job.
void Job_Scheduler::pass(Scheduled& scheduled, time_t now, Due& due)
{
  const Cron_Schedule& cron = scheduled.schedule.cron;
  const time_t first = scheduled.next;
  time_t last = first;
  ignore_result(cron.last_until(now, first, last), "the first one is the last then");
  bool complete = true;
  uint64_t count = 1 + cron.count(first, now, complete);
  if (!cron.next_after(now, scheduled.next))
    scheduled.next = 0;

  const bool in_time = now - last <= lateness_sec;
  if (in_time)
    --count;
  due.at = last;
  due.run = in_time || scheduled.schedule.make_up;
  due.late = due.run && !in_time;
  due.missed = count;
  due.more = !complete;
  due.first_missed = count > 0 ? first : 0;
}

void Job_Scheduler::begin_again(time_t now)
{
  queue_.clear();
  for (auto& each : jobs_)
    plan(each.first, each.second, now);
}

std::vector<Job_Scheduler::Due> Job_Scheduler::take_due()
{
  const time_t now = clock().now();
  if (now + back_step_sec < seen_) {
    begin_again(now);
    seen_ = now;
  }
  seen_ = std::max(seen_, now);
  looked_until_ = now;
  std::vector<Due> all;
  while (!queue_.empty() && queue_.begin()->first <= now) {
    Due due;
    due.id = queue_.begin()->second;
    queue_.erase(queue_.begin());
    Job& job = jobs_[due.id];
    bool in_time = false;
    for (Scheduled& each : job) {
      if (each.next == 0 || each.next > now)
        continue;
      Due one;
      pass(each, now, one);
      in_time = in_time || (one.run && !one.late);
      due.at = std::max(due.at, one.at);
      due.run = due.run || one.run;
      due.missed += one.missed;
      due.more = due.more || one.more;
      if (one.first_missed != 0 && (due.first_missed == 0 || one.first_missed < due.first_missed))
        due.first_missed = one.first_missed;
    }
    due.late = due.run && !in_time;
    if (const time_t next = earliest(job))
      queue_.insert({next, due.id});
    all.push_back(due);
  }
  return all;
}

bool Job_Scheduler::next_due(time_t& next) const
{
  if (queue_.empty())
    return false;
  next = queue_.begin()->first;
  return true;
}

bool Job_Scheduler::next_of(const std::string& id, time_t& next) const
{
  const auto found = jobs_.find(id);
  const time_t first = found == jobs_.end() ? 0 : earliest(found->second);
  if (first == 0)
    return false;
  next = first;
  return true;
}
} // namespace kestrel

#include "agent/agent_jobs_state.h"

#include "agent/interrupted_run.h"
#include "agent/job_log_reader.h"
#include "agent/module_table.h"
#include "base/clock.h"
#include "base/heartbeat.h"
#include "base/uuid.h"
#include "json/json_util.h"

#include <ace/Log_Msg.h>

#include <algorithm>
#include <chrono>
#include <set>

namespace kestrel
{
namespace
{
constexpr auto schedule_interval = std::chrono::milliseconds(500);
constexpr time_t keep_until_interval_sec = 60;
constexpr time_t prune_interval_sec = 6 * 3600;

Jobs_Error internal(const std::string& text)
{
  return Jobs_Error{Jobs_Error::internal, text};
}
Jobs_Error refusal(const std::string& text)
{
  return Jobs_Error{Jobs_Error::refused, text};
}

std::string utc_text(time_t time)
{
  struct tm parts = {};
  ::gmtime_r(&time, &parts);
  char text[32] = "";
  std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S UTC", &parts);
  return text;
}

std::string missed_text(const Job_Scheduler::Due& due)
{
  if (due.missed == 0)
    return std::string();
  if (due.missed == 1 && !due.more)
    return "missed at " + utc_text(due.first_missed);
  return std::string("missed ") + (due.more ? "more than " : "") + std::to_string(due.missed) +
         " times since " + utc_text(due.first_missed);
}
} // namespace

void Agent_Jobs::State::call_modules(std::unique_lock<std::mutex>& lock, uint64_t since)
{
  // What others have added is theirs to wait for.
  const uint64_t until = hooks.added();
  lock.unlock();
  if (until != since)
    hooks.call(until);
  keep_told();
}

bool Agent_Jobs::State::load(std::string& error)
{
  std::vector<Stored_Definition> definitions;
  std::vector<Run_Record> last;
  std::vector<Run_Record> latest;
  time_t until = 0;
  if (!store.load(definitions, error) || !store.scheduled_until(until, error))
    return false;
  std::map<std::string, std::string> documents;
  for (const Stored_Definition& stored : definitions)
    documents[stored.id] = stored.document;
  if (!settle_interrupted(documents, error) || !history.last_runs(last, error) ||
      !history.latest_records(latest, error))
    return false;

  for (const Stored_Definition& stored : definitions) {
    Known_Job& job = jobs[stored.id];
    job.stored = stored;
    read_definition(modules.loader(), settings.host_uuid, job);
  }
  for (const Run_Record& record : last) {
    const auto found = jobs.find(record.definition_id);
    if (found != jobs.end())
      found->second.last_run = record;
  }
  // Times that were noted as skipped are over, too.
  std::map<std::string, time_t> noted;
  for (const Run_Record& record : latest)
    noted[record.definition_id] = record.queued_at;
  if (!add_untold(error))
    return false;
  for (auto& each : jobs)
    adopt(each.second,
          std::max({until, each.second.stored.since, each.second.last_run.queued_at, noted[each.first]}));
  return true;
}

/// Nothing new may run before: it would use the same names.
bool Agent_Jobs::State::settle_interrupted(const std::map<std::string, std::string>& documents,
                                           std::string& error)
{
  std::vector<std::string> removed;
  std::vector<Run_Record> interrupted;
  if (!history.open_runs(interrupted, error) || !presence.enter(error, &removed))
    return false;
  for (Run_Record& record : interrupted) {
    const auto document = documents.find(record.definition_id);
    end_interrupted_run(record, document == documents.end() ? std::string() : document->second, removed);
    ACE_ERROR((LM_NOTICE, "(%P|%t) Agent_Jobs: run %C of job %C: %C\n", record.run_id.c_str(),
               record.name.c_str(), record.reason.c_str()));
  }
  return interrupted.empty() || history.put(interrupted, error);
}

void Agent_Jobs::State::adopt(Known_Job& job, time_t after)
{
  if (job.runs())
    scheduler.set(job.stored.id, job.schedules, after);
  else
    scheduler.remove(job.stored.id);
}

Run_Record Agent_Jobs::State::new_record(const Known_Job& job, const std::string& trigger) const
{
  Run_Record record;
  record.run_id = make_uuid();
  record.definition_id = job.stored.id;
  record.revision = job.stored.revision;
  record.name = job.name;
  record.trigger = trigger;
  record.queued_at = clock().now();
  record.instance = job.instance;
  return record;
}

bool Agent_Jobs::State::ask_run(Known_Job& job, const std::string& trigger,
                                const json_spirit::Object& options, const std::string& note,
                                std::string& run_id, Jobs_Error& error)
{
  Job_Runner::Status status;
  if (!job.refused.empty())
    error = refusal("the definition was refused: " + job.refused);
  else if (!job.stored.enabled)
    error = refusal("the job is disabled");
  else if (job.removed)
    error = refusal("the job has been removed");
  else if (runner.status(job.stored.id, status))
    error = refusal(status.queued ? "a run of this job waits already" : "a run of this job is under way");
  else {
    Run_Record record = new_record(job, trigger);
    record.reason = note;
    record.former_start = last_start_of(record.definition_id);
    std::string problem;
    if (!history.put(record, problem)) {
      error = internal(problem);
      return false;
    }
    Job::Opts opts;
    for (const json_spirit::Pair& option : options)
      opts[option.name_] = option.value_;
    if (runner.enqueue(record, job.definition, opts)) {
      job.last_run = record;
      run_id = record.run_id;
      return true;
    }
    record.state = JOB_STATE_CANCELED;
    record.ended_at = record.queued_at;
    record.reason = "the agent stopped before the run began";
    keep(record);
    error = Jobs_Error{Jobs_Error::busy, "the agent is stopping"};
  }
  return false;
}

bool Agent_Jobs::State::set_enabled(Known_Job& job, bool enabled, Jobs_Error& error)
{
  Job_Runner::Status status;
  if (runner.status(job.stored.id, status)) {
    error = refusal("a run of this job is under way");
    return false;
  }
  std::string problem;
  if (!store.set_enabled(job.stored.id, enabled, problem)) {
    error = internal(problem);
    return false;
  }
  job.stored.enabled = enabled;
  hooks.add(enabling_of(job));
  adopt(job, clock().now());
  Job_Notice notice;
  notice.id = job.stored.id;
  notice.state = job.resting_state();
  notice.time = clock().now();
  notices.put_state(notice);
  return true;
}

bool Agent_Jobs::State::control(const std::string& id, const std::string& action,
                                const json_spirit::Object& options, std::string& run_id, bool& for_runner,
                                Jobs_Error& error)
{
  settle_pending();
  const auto found = jobs.find(id);
  if (found == jobs.end()) {
    error = Jobs_Error{Jobs_Error::unknown_id, "there is no job " + id.substr(0, 80)};
    return false;
  }
  // A run that a stop waits for may still be ended.
  const bool ends = action == "cancel" || action == "abort";
  if (!opened || (!ends && (stopping || !scheduling.joinable()))) {
    error = Jobs_Error{Jobs_Error::busy, "the agent runs no jobs now: it starts or stops"};
    return false;
  }
  Known_Job& job = found->second;
  Job_Runner::Status status;
  const bool running = runner.status(id, status);
  if (action == "run")
    return ask_run(job, job.on_demand && job.schedules.empty() ? "ondemand" : "console", options, "", run_id,
                   error);
  if (action == "resume" && !running && resumable(job))
    return ask_run(job, "console", options, "", run_id, error);
  if (action == "enable" || action == "disable") {
    if (!set_enabled(job, action == "enable", error))
      return false;
    run_id.clear();
    return true;
  }
  for_runner = true;
  return false;
}

void Agent_Jobs::State::schedule_loop()
{
  Heartbeat beat(settings.heartbeats, "scheduler", loop_limit_msec);
  std::unique_lock<std::mutex> lock(mutex);
  // What a former process did not come to tell.
  call_modules(lock, 0);
  lock.lock();
  while (!stopping) {
    const time_t now = clock().now();
    const uint64_t since = hooks.added();
    if (!unstored.empty())
      keep_waiting();
    settle_pending();
    take_due();
    if (now < pruned_at || now - pruned_at >= prune_interval_sec)
      prune(now);
    beat.beat();
    call_modules(lock, since);
    lock.lock();
    if (!stopping)
      wake.wait_for(lock, schedule_interval);
  }
}

void Agent_Jobs::State::take_due()
{
  for (const Job_Scheduler::Due& due : scheduler.take_due())
    handle_due(due);
  const time_t now = scheduler.looked_until();
  if (now >= until_kept && now - until_kept < keep_until_interval_sec)
    return;
  std::string error;
  if (!store.set_scheduled_until(now, error) && !until_failing)
    ACE_ERROR((LM_ERROR, "(%P|%t) Agent_Jobs: %C\n", error.c_str()));
  until_failing = !error.empty();
  until_kept = now;
}

void Agent_Jobs::State::handle_due(const Job_Scheduler::Due& due)
{
  Known_Job& job = jobs[due.id];
  const std::string missed = missed_text(due);
  if (!due.run) {
    note_skipped(job, due.at, missed + ", when this agent did not run");
    return;
  }
  std::string run_id;
  Jobs_Error error;
  const std::string note = due.late ? "makes up for a run " + missed : std::string();
  if (!ask_run(job, due.late ? "restart" : "schedule", json_spirit::Object(), note, run_id, error))
    note_skipped(job, due.at, error.text);
}

void Agent_Jobs::State::note_skipped(const Known_Job& job, time_t at, const std::string& reason)
{
  // Schedules go on while the disk is full: what that leaves undone must not fill the memory.
  if (unstored.size() >= settings.most_unstored) {
    if (!notes_dropped)
      ACE_ERROR((LM_ERROR,
                 "(%P|%t) Agent_Jobs: %u records wait to be stored in the agent's database; until they are, "
                 "skipped times are not noted\n",
                 static_cast<unsigned>(unstored.size())));
    notes_dropped = true;
    return;
  }
  Run_Record record = new_record(job, "schedule");
  record.queued_at = at;
  record.ended_at = clock().now();
  record.state = JOB_STATE_SKIPPED;
  record.reason = reason;
  keep(record);
}

void Agent_Jobs::State::keep(const Run_Record& record)
{
  unstored.push_back(record);
  keep_waiting();
}

void Agent_Jobs::State::keep_waiting()
{
  std::string error;
  if (unstored.empty())
    return;
  if (history.put(unstored, error)) {
    unstored.clear();
    record_waits = notes_dropped = false;
    notices.put_history();
  } else if (!record_waits) {
    record_waits = true;
    ACE_ERROR((LM_ERROR, "(%P|%t) Agent_Jobs: a run's record waits: %C\n", error.c_str()));
  }
}

void Agent_Jobs::State::run_changed(const Run_Record& record)
{
  const std::lock_guard<std::mutex> guard(mutex);
  keep(record);
  const auto found = jobs.find(record.definition_id);
  if (found != jobs.end())
    found->second.last_run = record;
}

void Agent_Jobs::State::prune(time_t now)
{
  pruned_at = now;
  std::vector<std::string> logs;
  std::string error;
  if (!history.prune(now - static_cast<time_t>(settings.history_days) * 24 * 3600, logs, error)) {
    ACE_ERROR((LM_WARNING, "(%P|%t) Agent_Jobs::prune: %C\n", error.c_str()));
    return;
  }
  remove_job_logs(logs);
}

json_spirit::Object Agent_Jobs::State::list_entry(const Known_Job& job) const
{
  Job_Runner::Status status;
  const bool busy = runner.status(job.stored.id, status);
  time_t next = 0;
  const bool due = scheduler.next_of(job.stored.id, next);
  json_spirit::Object object;
  set_value(object, "id", job.stored.id);
  set_value(object, "name", job.name);
  set_value(object, "revision", job.stored.revision);
  set_value(object, "state", job_state_text(busy ? status.state : job.resting_state()));
  set_value(object, "enabled", job.stored.enabled);
  set_value(object, "running", status.running);
  set_value(object, "run_id", busy ? status.record.run_id : std::string());
  set_value(object, "next_run", due ? json_spirit::Value(static_cast<int64_t>(next)) : json_spirit::Value());
  set_value(object, "last_run",
            job.last_run.run_id.empty()
                ? json_spirit::Value()
                : json_spirit::Value(run_record_json(job.last_run, settings.host_uuid)));
  if (!job.refused.empty())
    set_value(object, "refused", job.refused);
  return object;
}
} // namespace kestrel

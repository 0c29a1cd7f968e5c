#include "agent/agent_jobs.h"

#include "agent/interrupted_run.h"
#include "agent/job_database.h"
#include "agent/job_definitions.h"
#include "agent/job_log_reader.h"
#include "agent/job_notices.h"
#include "agent/job_presence.h"
#include "agent/job_runner.h"
#include "agent/job_scheduler.h"
#include "agent/job_store.h"
#include "agent/module_table.h"
#include "agent/run_history.h"
#include "base/clock.h"
#include "base/file_lock.h"
#include "base/ignore_result.h"
#include "base/path_conf.h"
#include "base/uuid.h"
#include "json/json_util.h"

#include <ace/Log_Msg.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <map>
#include <mutex>
#include <set>
#include <thread>

namespace kestrel
{
namespace
{
constexpr auto schedule_interval = std::chrono::milliseconds(500);
constexpr time_t keep_until_interval_sec = 60;
constexpr time_t prune_interval_sec = 6 * 3600;
constexpr int64_t cancel_msec = 120 * 1000;
constexpr unsigned max_listed_runs = 1000;

Jobs_Error internal(const std::string& text)
{
  return Jobs_Error{Jobs_Error::internal, text};
}
Jobs_Error refusal(const std::string& text)
{
  return Jobs_Error{Jobs_Error::refused, text};
}

json_spirit::Object refused_entry(const std::string& id, const std::string& reason)
{
  json_spirit::Object object;
  set_value(object, "id", id);
  set_value(object, "reason", reason);
  return object;
}

std::string utc_text(time_t time)
{
  struct tm parts = {};
  ::gmtime_r(&time, &parts);
  char text[32] = "";
  std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S UTC", &parts);
  return text;
}
} // namespace

struct Agent_Jobs::State {
  State(Module_Table& module_table, Settings given)
      : modules(module_table), settings(std::move(given)), store(database),
        history(database, settings.server),
        runner(modules, notices, settings.max_concurrent,
               [this](const Run_Record& record, Job* job) { run_changed(record, job); })
  {
  }

  // Start.
  bool load(std::string& error);
  bool settle_interrupted(const std::map<std::string, std::string>& documents, std::string& error);

  // Definitions. With the mutex.
  void adopt(Known_Job& job, time_t after);
  void forget(const std::string& id, Job* job);
  bool apply(std::vector<Definition_Offer> offers, const std::string& origin, json_spirit::Array& refused,
             Jobs_Error& error);

  // Runs. With the mutex.
  bool ask_run(Known_Job& job, const std::string& trigger, const json_spirit::Object& options,
               const std::string& note, std::string& run_id, Jobs_Error& error);
  bool set_enabled(Known_Job& job, bool enabled, Jobs_Error& error);
  void note_skipped(const Known_Job& job, time_t at, const std::string& reason);
  void take_due();
  void handle_due(const Job_Scheduler::Due& due);
  Run_Record new_record(const Known_Job& job, const std::string& trigger) const;
  /// Stores the record, later when it cannot be stored now.
  void keep(const Run_Record& record);
  void keep_waiting();
  bool resumable(const Known_Job& job) const { return job.last_run.state == JOB_STATE_PAUSED; }

  void run_changed(const Run_Record& record, Job* job);
  void schedule_loop();
  void prune(time_t now);
  json_spirit::Object list_entry(const Known_Job& job) const;

  Module_Table& modules;
  const Settings settings;
  File_Lock only_agent;
  Job_Presence presence;
  Job_Database database;
  Job_Store store;
  Run_History history;
  Job_Notices notices;

  mutable std::mutex mutex; ///< guards what follows; taken before the runner's
  std::condition_variable wake;
  std::map<std::string, Known_Job> jobs;
  Job_Scheduler scheduler;
  std::vector<Run_Record> unstored; ///< records that did not reach the disk yet
  bool until_failing = false;       ///< told once
  bool record_waits = false;        ///< told once
  bool stopping = false;
  bool opened = false;
  time_t until_kept = 0;
  time_t pruned_at = 0;
  std::thread scheduling;

  Job_Runner runner; // the first to go
};

Agent_Jobs::Agent_Jobs(Module_Table& modules, Settings settings)
    : state_(new State(modules, std::move(settings)))
{
}

Agent_Jobs::~Agent_Jobs()
{
  ignore_result(stop(0, true), "the caller has asked before, or may not go on");
}

bool Agent_Jobs::open(std::string& error)
{
  const std::string path =
      state_->settings.database.empty() ? state_path("agent.db") : state_->settings.database;
  if (!state_->only_agent.try_lock(path + ".lock")) {
    error = errno == EWOULDBLOCK ? "another agent of this installation is running"
                                 : "cannot lock " + path + ".lock: " + std::strerror(errno);
    return false;
  }
  const std::lock_guard<std::mutex> guard(state_->mutex);
  if (!state_->database.open(path, error) || !state_->load(error)) {
    state_->database.close();
    state_->only_agent.unlock();
    return false;
  }
  state_->opened = true;
  return true;
}

bool Agent_Jobs::State::load(std::string& error)
{
  std::vector<Stored_Definition> definitions;
  std::vector<Run_Record> last;
  time_t until = 0;
  if (!store.load(definitions, error) || !store.scheduled_until(until, error))
    return false;
  std::map<std::string, std::string> documents;
  for (const Stored_Definition& stored : definitions)
    documents[stored.id] = stored.document;
  if (!settle_interrupted(documents, error) || !history.last_runs(last, error))
    return false;

  for (const Stored_Definition& stored : definitions) {
    Known_Job& job = jobs[stored.id];
    job.stored = stored;
    read_definition(modules.loader(), job);
  }
  for (const Run_Record& record : last) {
    const auto found = jobs.find(record.definition_id);
    if (found != jobs.end())
      found->second.last_run = record;
  }
  for (auto& each : jobs)
    adopt(each.second, std::max({until, each.second.stored.since, each.second.last_run.queued_at}));
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

bool Agent_Jobs::start(std::string& error)
{
  State& state = *state_;
  const std::lock_guard<std::mutex> guard(state.mutex);
  if (!state.opened || state.stopping) {
    error = "the jobs are not open";
    return false;
  }
  if (state.scheduling.joinable())
    return true;
  state.notices.start();
  state.runner.start();
  state.scheduling = std::thread([&state] { state.schedule_loop(); });
  return true;
}

bool Agent_Jobs::stop(unsigned grace_seconds, bool cancel)
{
  State& state = *state_;
  {
    const std::lock_guard<std::mutex> guard(state.mutex);
    state.stopping = true;
    state.wake.notify_all();
  }
  if (state.scheduling.joinable())
    state.scheduling.join();
  bool idle = state.runner.stop(static_cast<int64_t>(grace_seconds) * 1000, cancel, cancel_msec);
  // Code of modules runs until the threads of the runs are gone.
  idle = idle && Job::wait_all_runs(cancel_msec);
  {
    const std::lock_guard<std::mutex> guard(state.mutex);
    if (state.opened) {
      std::string error;
      state.keep_waiting();
      if (!state.store.set_scheduled_until(clock().now(), error))
        ACE_ERROR((LM_WARNING, "(%P|%t) Agent_Jobs::stop: %C\n", error.c_str()));
    }
    state.opened = false;
  }
  state.notices.stop();
  state.database.close();
  state.only_agent.unlock();
  return idle;
}

void Agent_Jobs::State::adopt(Known_Job& job, time_t after)
{
  if (job.runs())
    scheduler.set(job.stored.id, job.schedules, after);
  else
    scheduler.remove(job.stored.id);
}

void Agent_Jobs::State::forget(const std::string& id, Job* job)
{
  const auto found = jobs.find(id);
  if (found == jobs.end())
    return;
  scheduler.remove(id);
  remove_traces(modules, found->second, job);
  jobs.erase(found);
}

bool Agent_Jobs::sync(const json_spirit::Array& definitions, json_spirit::Array& refused, Jobs_Error& error)
{
  std::vector<Definition_Offer> offers;
  json_spirit::Array unusable;
  for (const json_spirit::Value& value : definitions) {
    Definition_Offer offer;
    std::string reason;
    if (read_offer(value, offer, reason))
      offers.push_back(std::move(offer));
    else
      unusable.push_back(refused_entry(offer.id, reason));
  }
  const std::lock_guard<std::mutex> guard(state_->mutex);
  if (!state_->apply(std::move(offers), "server", unusable, error))
    return false;
  refused.swap(unusable);
  return true;
}

bool Agent_Jobs::sync_directory(const std::string& directory, json_spirit::Array& refused, Jobs_Error& error)
{
  std::vector<Definition_Offer> offers;
  json_spirit::Array unusable;
  std::vector<std::pair<std::string, std::string>> problems;
  if (!read_offers(directory, offers, problems)) {
    error = internal(problems.front().second);
    return false;
  }
  for (const auto& problem : problems)
    unusable.push_back(refused_entry(problem.first, problem.second));
  const std::lock_guard<std::mutex> guard(state_->mutex);
  if (!state_->apply(std::move(offers), "local", unusable, error))
    return false;
  refused.swap(unusable);
  return true;
}

bool Agent_Jobs::State::apply(std::vector<Definition_Offer> offers, const std::string& origin,
                              json_spirit::Array& refused, Jobs_Error& error)
{
  if (!opened || stopping) {
    error = Jobs_Error{Jobs_Error::busy, "the agent is stopping"};
    return false;
  }
  // What is due by the definitions so far is due.
  take_due();
  const time_t now = clock().now();
  std::map<std::string, Known_Job> changed;
  std::set<std::string> present;
  for (Definition_Offer& offer : offers) {
    const auto known = jobs.find(offer.id);
    if (known != jobs.end() && known->second.stored.origin != origin) {
      refused.push_back(
          refused_entry(offer.id, "a definition from " + known->second.stored.origin + " has this id"));
      continue;
    }
    if (!present.insert(offer.id).second) {
      refused.push_back(refused_entry(offer.id, "the id stands there twice"));
      continue;
    }
    Known_Job job;
    job.stored = Stored_Definition{offer.id, offer.revision, offer.enabled, origin, offer.document, now};
    if (known != jobs.end() && known->second.is(job.stored)) {
      if (!known->second.refused.empty())
        refused.push_back(refused_entry(offer.id, known->second.refused));
      continue;
    }
    read_definition(modules.loader(), job);
    if (!job.refused.empty())
      refused.push_back(refused_entry(offer.id, job.refused));
    changed[offer.id] = std::move(job);
  }

  std::vector<Stored_Definition> stored;
  std::vector<std::string> removed;
  for (const auto& each : changed)
    stored.push_back(each.second.stored);
  for (const auto& each : jobs)
    if (each.second.stored.origin == origin && !present.count(each.first))
      removed.push_back(each.first);
  std::string problem;
  if ((!stored.empty() || !removed.empty()) && !store.change(stored, removed, problem)) {
    error = internal(problem);
    return false;
  }

  for (auto& each : changed) {
    Known_Job& job = jobs[each.first];
    Job_Runner::Status status;
    if (runner.status(each.first, status))
      job.postpone(std::move(each.second));
    else
      job.replace(std::move(each.second));
    adopt(job, now);
  }
  for (const std::string& id : removed) {
    Job_Runner::Status status;
    if (runner.status(id, status)) {
      jobs[id].removed = true;
      scheduler.remove(id);
    } else {
      forget(id, nullptr);
    }
  }
  wake.notify_all();
  return true;
}

bool Agent_Jobs::control(const std::string& id, const std::string& action, const json_spirit::Object& options,
                         std::string& run_id, Jobs_Error& error)
{
  static const std::set<std::string> actions = {"run",   "pause",  "resume", "cancel",
                                                "abort", "switch", "enable", "disable"};
  State& state = *state_;
  if (!actions.count(action)) {
    error =
        Jobs_Error{Jobs_Error::bad_params, "there is no action \"" + action.substr(0, 40) +
                                               "\"; actions are run, pause, resume, cancel, abort, switch, "
                                               "enable, disable"};
    return false;
  }
  {
    const std::lock_guard<std::mutex> guard(state.mutex);
    const auto found = state.jobs.find(id);
    if (found == state.jobs.end()) {
      error = Jobs_Error{Jobs_Error::unknown_id, "there is no job " + id.substr(0, 80)};
      return false;
    }
    if (state.stopping || !state.scheduling.joinable()) {
      error = Jobs_Error{Jobs_Error::busy, "the agent runs no jobs now: it starts or stops"};
      return false;
    }
    Known_Job& job = found->second;
    Job_Runner::Status status;
    const bool running = state.runner.status(id, status);
    if (action == "run")
      return state.ask_run(job, job.on_demand && job.schedules.empty() ? "ondemand" : "console", options, "",
                           run_id, error);
    if (action == "resume" && !running && state.resumable(job))
      return state.ask_run(job, "console", options, "", run_id, error);
    if (action == "enable" || action == "disable") {
      if (!state.set_enabled(job, action == "enable", error))
        return false;
      run_id.clear();
      return true;
    }
  }
  return state.runner.control(id, action, run_id, error);
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
  tell_enabled(modules, job);
  adopt(job, clock().now());
  Job_Notice notice;
  notice.id = job.stored.id;
  notice.state = job.resting_state();
  notice.time = clock().now();
  notices.put_state(notice);
  return true;
}

void Agent_Jobs::State::schedule_loop()
{
  std::unique_lock<std::mutex> lock(mutex);
  while (!stopping) {
    const time_t now = clock().now();
    if (!unstored.empty())
      keep_waiting();
    take_due();
    if (now < pruned_at || now - pruned_at >= prune_interval_sec)
      prune(now);
    wake.wait_for(lock, schedule_interval);
  }
}

void Agent_Jobs::State::take_due()
{
  for (const Job_Scheduler::Due& due : scheduler.take_due())
    handle_due(due);
  const time_t now = clock().now();
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
  std::string missed;
  if (due.missed == 1)
    missed = "missed at " + utc_text(due.first_missed);
  else if (due.missed > 1)
    missed = "missed " + std::to_string(due.missed) + " times since " + utc_text(due.first_missed);
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
    record_waits = false;
    notices.put_history();
  } else if (!record_waits) {
    record_waits = true;
    ACE_ERROR((LM_ERROR, "(%P|%t) Agent_Jobs: a run's record waits: %C\n", error.c_str()));
  }
}

void Agent_Jobs::State::run_changed(const Run_Record& record, Job* job)
{
  const std::lock_guard<std::mutex> guard(mutex);
  keep(record);
  const auto found = jobs.find(record.definition_id);
  if (found == jobs.end())
    return;
  Known_Job& known = found->second;
  known.last_run = record;
  if (record.ended_at == 0)
    return;
  if (known.removed) {
    forget(record.definition_id, job);
  } else if (known.next) {
    known.take_postponed();
    adopt(known, clock().now());
  }
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

json_spirit::Array Agent_Jobs::list() const
{
  const std::lock_guard<std::mutex> guard(state_->mutex);
  json_spirit::Array jobs;
  for (const auto& each : state_->jobs)
    jobs.push_back(state_->list_entry(each.second));
  return jobs;
}

bool Agent_Jobs::log(const std::string& run_id, uint64_t offset, uint64_t limit, json_spirit::Object& result,
                     Jobs_Error& error) const
{
  Run_Record record;
  bool found = false;
  std::string problem;
  if (!state_->history.find(run_id, record, found, problem)) {
    error = internal(problem);
    return false;
  }
  if (!found) {
    error = Jobs_Error{Jobs_Error::unknown_id, "there is no run " + run_id.substr(0, 80)};
    return false;
  }
  Job_Log_Part part;
  if (!read_job_log(record.log_path, offset, limit, part, problem)) {
    error = internal(problem);
    return false;
  }
  json_spirit::Object object;
  set_value(object, "text", part.text);
  set_value(object, "next_offset", part.next_offset);
  set_value(object, "ended", record.ended_at != 0 && part.at_end);
  result.swap(object);
  return true;
}

bool Agent_Jobs::history(const std::string& id, unsigned limit, json_spirit::Array& runs,
                         Jobs_Error& error) const
{
  std::vector<Run_Record> records;
  std::string problem;
  if (!state_->history.list(id, std::min(limit, max_listed_runs), records, problem)) {
    error = internal(problem);
    return false;
  }
  runs.clear();
  for (const Run_Record& record : records)
    runs.push_back(run_record_json(record, state_->settings.host_uuid));
  return true;
}

json_spirit::Array Agent_Jobs::unsent_runs(unsigned limit) const
{
  std::vector<Run_Record> records;
  std::string error;
  json_spirit::Array runs;
  if (!state_->history.unsent(std::min(limit, max_listed_runs), records, error))
    ACE_ERROR((LM_WARNING, "(%P|%t) Agent_Jobs::unsent_runs: %C\n", error.c_str()));
  for (const Run_Record& record : records)
    runs.push_back(run_record_json(record, state_->settings.host_uuid));
  return runs;
}

bool Agent_Jobs::mark_sent(const std::vector<std::string>& run_ids, Jobs_Error& error)
{
  std::string problem;
  if (state_->history.mark_sent(run_ids, problem))
    return true;
  error = internal(problem);
  return false;
}

Agent_Jobs::Counts Agent_Jobs::counts() const
{
  Counts counts;
  const std::lock_guard<std::mutex> guard(state_->mutex);
  counts.definitions = static_cast<unsigned>(state_->jobs.size());
  state_->runner.counts(counts.running, counts.queued);
  return counts;
}

void Agent_Jobs::set_listener(std::function<void(const Job_Notice&)> listener)
{
  state_->notices.set_listener(std::move(listener));
}

void Agent_Jobs::set_history_listener(std::function<void()> listener)
{
  state_->notices.set_history_listener(std::move(listener));
}
} // namespace kestrel

#include "agent/agent_jobs_state.h"

#include "agent/job_log_reader.h"
#include "base/clock.h"
#include "base/ignore_result.h"
#include "base/path_conf.h"
#include "json/json_util.h"

#include <ace/Log_Msg.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <set>

namespace kestrel
{
namespace
{
constexpr int64_t cancel_msec = 120 * 1000;
constexpr unsigned max_listed_runs = 1000;

Jobs_Error internal(const std::string& text)
{
  return Jobs_Error{Jobs_Error::internal, text};
}
} // namespace

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
  state.hooks.call(state.hooks.added());
  state.keep_told();
  {
    const std::lock_guard<std::mutex> guard(state.mutex);
    if (state.opened) {
      std::string error;
      state.keep_waiting();
      // What became due while runs were waited for is told by the next start.
      const time_t until = state.scheduler.looked_until();
      if (until != 0 && !state.store.set_scheduled_until(until, error))
        ACE_ERROR((LM_WARNING, "(%P|%t) Agent_Jobs::stop: %C\n", error.c_str()));
    }
    state.opened = false;
  }
  state.notices.stop();
  state.only_agent.unlock();
  return idle;
}

bool Agent_Jobs::sync(const json_spirit::Array& definitions, json_spirit::Array& refused, Jobs_Error& error)
{
  std::vector<Definition_Offer> offers;
  json_spirit::Array unusable;
  Kept_Definitions kept;
  for (const json_spirit::Value& value : definitions) {
    Definition_Offer offer;
    std::string reason;
    if (read_offer(value, offer, reason)) {
      offers.push_back(std::move(offer));
    } else {
      unusable.push_back(refused_definition(offer.id, reason));
      kept.ids.insert(offer.id);
    }
  }
  if (!state_->apply_offers(std::move(offers), "server", kept, unusable, error))
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
    unusable.push_back(refused_definition(problem.first, problem.second));
  // Which definition a broken file held is not known.
  Kept_Definitions kept;
  kept.all = !problems.empty();
  if (!state_->apply_offers(std::move(offers), "local", kept, unusable, error))
    return false;
  refused.swap(unusable);
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
  bool for_runner = false;
  std::unique_lock<std::mutex> lock(state.mutex);
  const uint64_t since = state.hooks.added();
  const bool done = state.control(id, action, options, run_id, for_runner, error);
  state.call_modules(lock, since);
  return for_runner ? state.runner.control(id, action, run_id, error) : done;
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

bool Agent_Jobs::mark_refused(const std::vector<Refused_Run>& runs, Jobs_Error& error)
{
  std::string problem;
  if (!state_->history.mark_refused(runs, problem)) {
    error = internal(problem);
    return false;
  }
  const std::lock_guard<std::mutex> guard(state_->mutex);
  for (auto& [id, job] : state_->jobs)
    for (const Refused_Run& run : runs)
      if (job.last_run.run_id == run.run_id)
        job.last_run.refusal = run.reason;
  return true;
}

void Agent_Jobs::end_grace()
{
  state_->runner.end_grace();
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

#include "agent/job_runner.h"

#include "agent/failure_text.h"
#include "agent/module_table.h"
#include "agent/run_lock.h"
#include "base/clock.h"
#include "base/heartbeat.h"
#include "base/ignore_result.h"
#include "jobs/job_creator.h"
#include "json/json_util.h"

#include <ace/Log_Msg.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <set>

namespace kestrel
{
namespace
{
typedef std::chrono::steady_clock Real_Clock;
/// How often runs and locks are looked at; ends are told by events, so this is for locks of other processes.
constexpr auto look_interval = std::chrono::milliseconds(100);
/// How long the thread of an ended run may take to go before it no longer matters.
constexpr auto thread_end_time = std::chrono::seconds(10);
constexpr int64_t progress_interval_msec = 1000;

json_spirit::Array alerts_json(const std::vector<Job_Alert>& alerts)
{
  json_spirit::Array array;
  for (const Job_Alert& alert : alerts) {
    json_spirit::Object& object = append_new_object(array);
    set_value(object, "category", alert.category);
    set_value(object, "code", alert.code);
    set_value(object, "data", alert.data);
  }
  return array;
}

/// Only one reference is left: the thread of the run has gone.
bool is_last_reference(Job& job)
{
  job.add_reference();
  return job.remove_reference() == 1;
}

Jobs_Error refusal(const std::string& text)
{
  return Jobs_Error{Jobs_Error::refused, text};
}
} // namespace

struct Job_Runner::Run {
  Run_Record record;
  Job_Definition_Ptr definition;
  Job::Opts options;
  std::string lock_path;
  std::string note; ///< the reason unless the job gives one
  /// Held while the job's state is looked at and the job told accordingly. Before the runner's mutex.
  std::mutex control;

  // Guarded by the runner's mutex.
  Job_Ptr job;
  File_Lock lock;
  std::string lock_problem; ///< why there will be no lock
  bool cancel = false;      ///< asked for before there was a job
  int progress = 0;
  uint64_t done_bytes = 0;
  uint64_t total_bytes = 0;
  std::string item;
  int64_t told_at = 0;
  Real_Clock::time_point ended_at; ///< when the end was first seen
};

Job_Runner::Job_Runner(Module_Table& modules, Job_Notices& notices, unsigned max_concurrent, Changed changed,
                       Heartbeats* heartbeats)
    : modules_(modules), notices_(notices), max_concurrent_(max_concurrent), changed_(std::move(changed)),
      heartbeats_(heartbeats)
{
}

Job_Runner::~Job_Runner()
{
  ignore_result(stop(0, true, 0), "whoever wanted to know has asked before");
}

void Job_Runner::start()
{
  if (thread_.joinable())
    return;
  Job_Event_Manager::instance()->add_listener(this);
  thread_ = std::thread([this] { work(); });
}

bool Job_Runner::enqueue(const Run_Record& record, const Job_Definition_Ptr& definition,
                         const Job::Opts& options)
{
  const Run_Ptr run = std::make_shared<Run>();
  run->record = record;
  run->note = record.reason;
  run->definition = definition;
  run->options = options;
  run->lock_path = run_lock_path(*definition);
  const std::lock_guard<std::mutex> guard(mutex_);
  const auto same = [&](const Run_Ptr& other) { return other->record.definition_id == record.definition_id; };
  if (stopping_ || active_.count(record.definition_id) || std::any_of(queue_.begin(), queue_.end(), same))
    return false;
  queue_.push_back(run);
  notices_.put_state(notice_of(*run, JOB_STATE_DISPATCHING));
  wake_.notify_all();
  return true;
}

bool Job_Runner::status(const std::string& definition_id, Status& status) const
{
  Status found;
  Job_Ptr job;
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    const auto active = active_.find(definition_id);
    if (active != active_.end()) {
      found.running = true;
      found.record = active->second->record;
      found.state = JOB_STATE_STARTING;
      job = active->second->job;
    } else {
      for (const Run_Ptr& run : queue_) {
        if (run->record.definition_id == definition_id) {
          found.queued = true;
          found.record = run->record;
          found.state = JOB_STATE_DISPATCHING;
        }
      }
    }
  }
  if (job.get())
    found.state = job->state();
  if (!found.queued && !found.running)
    return false;
  status = found;
  return true;
}

void Job_Runner::counts(unsigned& running, unsigned& queued) const
{
  const std::lock_guard<std::mutex> guard(mutex_);
  running = static_cast<unsigned>(active_.size());
  queued = static_cast<unsigned>(queue_.size());
}

void Job_Runner::work()
{
  Heartbeat beat(heartbeats_, "job runner", loop_limit_msec);
  std::unique_lock<std::mutex> lock(mutex_);
  while (!ending_) {
    lock.unlock();
    beat.beat();
    end_runs();
    begin_runs();
    lock.lock();
    if (!ending_)
      wake_.wait_for(lock, look_interval);
  }
}

/// The first request that may begin; it is listed as active then.
Job_Runner::Run_Ptr Job_Runner::take_next()
{
  const std::lock_guard<std::mutex> guard(mutex_);
  if (stopping_ || active_.size() >= max_concurrent_)
    return nullptr;
  std::set<std::string> waited_for;
  for (auto place = queue_.begin(); place != queue_.end(); ++place) {
    const Run_Ptr run = *place;
    // Nobody overtakes an earlier request for the same lock.
    if (!waited_for.insert(run->lock_path).second)
      continue;
    if (!run->lock.try_lock(run->lock_path)) {
      const int problem = errno;
      if (problem == EWOULDBLOCK)
        continue;
      // Nobody's end would change this.
      run->lock_problem = "cannot lock " + run->lock_path + ": " + std::strerror(problem);
    }
    queue_.erase(place);
    active_[run->record.definition_id] = run;
    return run;
  }
  return nullptr;
}

void Job_Runner::begin_runs()
{
  while (const Run_Ptr run = take_next())
    begin(run);
}

void Job_Runner::begin(const Run_Ptr& run)
{
  Run_Record& record = run->record;
  std::string failure = run->lock_problem;
  Job_Creator* const creator = modules_.job_creator(run->definition->type(), run->definition->subtype());
  Job_Ptr job;
  try {
    errno = 0;
    if (creator && failure.empty())
      job = creator->create(run->definition);
    if (!job.get() && failure.empty())
      failure = errno == ENOMEM ? "out of memory" : "no module runs jobs of this type";
  } catch (const std::exception& problem) {
    failure = problem.what();
  }
  if (job.get() && job->state() == JOB_STATE_DISABLED)
    ignore_result(job->enable(), "the start fails then");
  if (job.get() && job->start(run->options.empty() ? nullptr : &run->options) != 0)
    failure = std::string("the job did not start: ") + std::strerror(errno);

  bool cancel = false;
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    record.started_at = clock().now();
    record.state = failure.empty() ? JOB_STATE_STARTING : JOB_STATE_ERROR;
    record.log_path = job.get() ? job->log_path() : std::string();
    run->job = job;
    cancel = run->cancel;
  }
  if (failure.empty()) {
    changed_(record);
    if (cancel) {
      const std::lock_guard<std::mutex> guard(run->control);
      ignore_result(job->stop(), "it has ended by itself");
    }
    return;
  }
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    record.ended_at = clock().now();
    record.reason = failure;
    run->lock.unlock();
  }
  changed_(record);
  forget(run);
}

bool Job_Runner::has_ended(const Run_Ptr& run) const
{
  Job_Ptr job;
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    job = run->job;
  }
  if (!job.get() || job->running())
    return false;
  const Real_Clock::time_point now = Real_Clock::now();
  if (run->ended_at == Real_Clock::time_point())
    run->ended_at = now;
  job.reset(); // not to be counted
  return is_last_reference(*run->job) || now - run->ended_at > thread_end_time;
}

void Job_Runner::end_runs()
{
  std::vector<Run_Ptr> runs;
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    for (const auto& each : active_)
      runs.push_back(each.second);
  }
  for (const Run_Ptr& run : runs)
    if (has_ended(run))
      end(run);
}

/// What the job says of its run.
Run_Record Job_Runner::outcome_of(const Run& run, Job& job, uint64_t done_bytes) const
{
  Run_Record record = run.record;
  record.state = job.state();
  record.ended_at = clock().now();
  record.alerts = alerts_json(job.alerts());
  record.log_path = job.log_path();
  record.done_bytes = std::max<uint64_t>(done_bytes, job.activity()->processed_size);
  record.reason = run.note;
  if (record.state == JOB_STATE_IDLE)
    record.reason = "the job's precondition did not hold";
  else if (record.state == JOB_STATE_SKIPPED)
    record.reason = "it was not for this host to do the work; the job's log tells why";
  else if (record.state != JOB_STATE_COMPLETED) {
    const std::string reason = reason_from_job_log(record.log_path);
    if (!reason.empty())
      record.reason = reason;
  }
  return record;
}

void Job_Runner::end(const Run_Ptr& run)
{
  // What the run has told of itself comes first.
  Job_Event_Manager::instance()->flush();
  Job_Ptr job;
  uint64_t done_bytes = 0;
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    job = run->job;
    done_bytes = run->done_bytes;
  }
  const Run_Record record = outcome_of(*run, *job, done_bytes);
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    run->record = record;
    run->lock.unlock();
  }
  changed_(record);
  job.reset();
  forget(run);
}

/// A request that never got to its work.
void Job_Runner::end_waiting(const Run_Ptr& run, const std::string& reason)
{
  run->record.state = JOB_STATE_CANCELED;
  run->record.ended_at = clock().now();
  run->record.reason = reason;
  changed_(run->record);
  notices_.put_state(notice_of(*run, JOB_STATE_CANCELED));
}

void Job_Runner::forget(const Run_Ptr& run)
{
  const std::lock_guard<std::mutex> guard(mutex_);
  notices_.put_state(notice_of(*run, run->record.state));
  active_.erase(run->record.definition_id);
  run->job.reset();
  idle_.notify_all();
  wake_.notify_all();
}

bool Job_Runner::control(const std::string& definition_id, const std::string& action, std::string& run_id,
                         Jobs_Error& error)
{
  const bool cancel = action == "cancel" || action == "abort";
  Run_Ptr run;
  Job_Ptr job;
  std::string meant;
  bool waiting = false;
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    const auto active = active_.find(definition_id);
    if (active != active_.end()) {
      run = active->second;
      job = run->job;
      if (!job.get() && cancel)
        run->cancel = true;
    }
    for (auto place = queue_.begin(); !run && place != queue_.end(); ++place) {
      if ((*place)->record.definition_id != definition_id)
        continue;
      run = *place;
      waiting = true;
      if (cancel)
        queue_.erase(place);
      break;
    }
    if (run)
      meant = run->record.run_id;
  }
  if (!run) {
    error = refusal("the job is not running");
    return false;
  }
  if (waiting && !cancel) {
    error = refusal("the run waits to begin and can only be canceled");
    return false;
  }
  if (waiting)
    end_waiting(run, "canceled before it began");
  else if (!job.get() && !cancel) {
    error = refusal("the run is just beginning; repeat the request");
    return false;
  } else if (job.get()) {
    const std::lock_guard<std::mutex> guard(run->control);
    if (!control_job(job, action, error))
      return false;
  }
  run_id = meant;
  return true;
}

bool Job_Runner::control_job(const Job_Ptr& job, const std::string& action, Jobs_Error& error)
{
  const Job_State state = job->state();
  const bool ends =
      state == JOB_STATE_CANCELING || state == JOB_STATE_ABORTING || state == JOB_STATE_COMPLETING;
  int result = -1;
  errno = 0;
  if (action == "cancel") {
    result = job->stop();
  } else if (action == "abort") {
    result = job->abort();
  } else if (ends) {
    error = refusal(std::string("the run is ") + job_state_text(state));
    return false;
  } else if (action == "pause") {
    result = job->pause();
  } else if (action == "resume") {
    if (state != JOB_STATE_PAUSING && state != JOB_STATE_PAUSED) {
      error = refusal(std::string("the run is not paused, it is ") + job_state_text(state));
      return false;
    }
    result = job->resume();
  } else if (action == "switch") {
    result = job->switch_();
  } else {
    error = Jobs_Error{Jobs_Error::bad_params, "there is no action \"" + action + "\""};
    return false;
  }
  if (result != 0)
    error = refusal(errno == ESRCH ? "the run has just ended" : "jobs of this kind do not accept " + action);
  return result == 0;
}

Job_Notice Job_Runner::notice_of(const Run& run, Job_State state) const
{
  Job_Notice notice;
  notice.id = run.record.definition_id;
  notice.run_id = run.record.run_id;
  notice.state = state;
  notice.progress = run.progress;
  notice.done_bytes = std::max(run.done_bytes, run.record.done_bytes);
  notice.total_bytes = run.total_bytes;
  notice.item = run.item;
  notice.time = clock().now();
  return notice;
}

void Job_Runner::handle_progress(const Job_Progress_Event& event)
{
  const std::lock_guard<std::mutex> guard(mutex_);
  const auto found = active_.find(event.definition_id());
  if (found == active_.end())
    return;
  Run& run = *found->second;
  run.progress = event.progress();
  run.total_bytes = event.a();
  run.done_bytes = event.b();
  const int64_t now = clock().monotonic_msec();
  if (run.told_at != 0 && now - run.told_at < progress_interval_msec)
    return;
  run.told_at = now;
  notices_.put_progress(notice_of(run, run.job.get() ? run.job->state() : JOB_STATE_RUNNING));
}

void Job_Runner::handle_item(const Job_Item_Event& event)
{
  const std::lock_guard<std::mutex> guard(mutex_);
  const auto found = active_.find(event.definition_id());
  if (found == active_.end())
    return;
  found->second->item = event.item();
  notices_.put_progress(notice_of(*found->second, JOB_STATE_RUNNING));
}

void Job_Runner::handle_state(const Job_State_Event& event)
{
  const std::lock_guard<std::mutex> guard(mutex_);
  const auto found = active_.find(event.definition_id());
  // The end is told when it is recorded.
  if (found != active_.end() && job_run_in_progress(event.state()))
    notices_.put_state(notice_of(*found->second, event.state()));
}

void Job_Runner::cancel_all()
{
  std::vector<std::pair<Run_Ptr, Job_Ptr>> jobs;
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    for (const auto& each : active_) {
      each.second->cancel = true;
      if (each.second->job.get())
        jobs.emplace_back(each.second, each.second->job);
    }
  }
  for (const auto& each : jobs) {
    const std::lock_guard<std::mutex> guard(each.first->control);
    ignore_result(each.second->stop(), "it has ended by itself");
  }
}

bool Job_Runner::wait_idle(int64_t msec, bool grace)
{
  const int64_t end = clock().monotonic_msec() + msec;
  std::unique_lock<std::mutex> lock(mutex_);
  while (!active_.empty()) {
    if (clock().monotonic_msec() >= end || (grace && grace_over_))
      return false;
    idle_.wait_for(lock, look_interval);
  }
  return true;
}

void Job_Runner::end_grace()
{
  const std::lock_guard<std::mutex> guard(mutex_);
  grace_over_ = true;
  idle_.notify_all();
}

bool Job_Runner::stop(int64_t grace_msec, bool cancel, int64_t cancel_msec)
{
  std::deque<Run_Ptr> waiting;
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    stopping_ = true;
    waiting.swap(queue_);
  }
  for (const Run_Ptr& run : waiting)
    end_waiting(run, "the agent stopped before the run began");
  if (!thread_.joinable()) {
    // Never started, or stopped before: nothing ends any more.
    const std::lock_guard<std::mutex> guard(mutex_);
    return active_.empty();
  }
  bool idle = !cancel && wait_idle(grace_msec, true);
  if (!idle) {
    cancel_all();
    idle = wait_idle(cancel_msec, false);
  }
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    ending_ = true;
    wake_.notify_all();
  }
  thread_.join();
  Job_Event_Manager::instance()->remove_listener(this);
  return idle;
}
} // namespace kestrel

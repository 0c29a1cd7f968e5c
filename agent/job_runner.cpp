#include "agent/job_runner_run.h"

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
} // namespace

Job_Runner::Job_Runner(Module_Table& modules, Job_Notices& notices, unsigned max_concurrent, Changed changed,
                       May_Begin may_begin, Heartbeats* heartbeats)
    : modules_(modules), notices_(notices), max_concurrent_(max_concurrent), changed_(std::move(changed)),
      may_begin_(std::move(may_begin)), heartbeats_(heartbeats)
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
      wake_.wait_for(lock, runner_look_interval);
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
    if (!may_begin_(run->record.definition_id))
      continue;
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

/// The job's object, started; empty with the reason when it cannot be.
Job_Runner::Job_Ptr Job_Runner::start_job(const Run& run, std::string& failure) const
{
  Job_Creator* const creator = modules_.job_creator(run.definition->type(), run.definition->subtype());
  Job_Ptr job;
  try {
    errno = 0;
    if (creator)
      job = creator->create(run.definition);
    if (!job.get())
      failure = errno == ENOMEM ? "out of memory" : "no module runs jobs of this type";
  } catch (const std::exception& problem) {
    failure = problem.what();
  }
  if (job.get() && job->state() == JOB_STATE_DISABLED)
    ignore_result(job->enable(), "the start fails then");
  if (job.get() && job->start(run.options.empty() ? nullptr : &run.options) != 0)
    failure = std::string("the job did not start: ") + std::strerror(errno);
  return job;
}

void Job_Runner::begin(const Run_Ptr& run)
{
  Run_Record& record = run->record;
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    record.started_at = clock().now();
    record.state = JOB_STATE_STARTING;
  }
  // Stored before the job does anything: a kill from here on leaves a run that may have begun its work.
  changed_(record);
  std::string failure = run->lock_problem;
  Job_Ptr job;
  if (failure.empty())
    job = start_job(*run, failure);

  bool cancel = false;
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    record.log_path = job.get() ? job->log_path() : std::string();
    if (failure.empty())
      run->job = job;
    cancel = run->cancel;
  }
  if (!failure.empty()) {
    end_unstarted(run, failure);
    return;
  }
  changed_(record); // with its log
  if (cancel) {
    const std::lock_guard<std::mutex> guard(run->control);
    ignore_result(job->stop(), "it has ended by itself");
  }
}

/// A run whose job could not be started.
void Job_Runner::end_unstarted(const Run_Ptr& run, const std::string& reason)
{
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    run->record.state = JOB_STATE_ERROR;
    run->record.ended_at = clock().now();
    run->record.reason = reason;
    run->lock.unlock();
  }
  changed_(run->record);
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
} // namespace kestrel

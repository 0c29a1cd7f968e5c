// What is asked of runs: control requests, and the end of the runner.

#include "agent/job_runner_run.h"

#include "base/clock.h"
#include "base/ignore_result.h"
#include "jobs/job_event.h"

#include <algorithm>
#include <cerrno>
#include <chrono>

namespace kestrel
{
namespace
{
Jobs_Error refusal(const std::string& text)
{
  return Jobs_Error{Jobs_Error::refused, text};
}
} // namespace

/// The definition's run and its job. A waiting one that is to be canceled leaves the queue; one whose job is
/// being made is canceled as soon as there is one.
Job_Runner::Run_Ptr Job_Runner::find_run(const std::string& definition_id, bool cancel, Job_Ptr& job,
                                         bool& waiting)
{
  const std::lock_guard<std::mutex> guard(mutex_);
  waiting = false;
  const auto active = active_.find(definition_id);
  if (active != active_.end()) {
    const Run_Ptr run = active->second;
    job = run->job;
    run->cancel = run->cancel || (cancel && !job.get());
    return run;
  }
  const auto place = std::find_if(queue_.begin(), queue_.end(), [&](const Run_Ptr& run) {
    return run->record.definition_id == definition_id;
  });
  if (place == queue_.end())
    return nullptr;
  const Run_Ptr run = *place;
  waiting = true;
  if (cancel)
    queue_.erase(place);
  return run;
}

bool Job_Runner::control(const std::string& definition_id, const std::string& action, std::string& run_id,
                         Jobs_Error& error)
{
  const bool cancel = action == "cancel" || action == "abort";
  Job_Ptr job;
  bool waiting = false;
  const Run_Ptr run = find_run(definition_id, cancel, job, waiting);
  if (!run) {
    error = refusal("the job is not running");
    return false;
  }
  if (waiting && !cancel) {
    error = refusal("the run waits to begin and can only be canceled");
    return false;
  }
  std::string meant;
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    meant = run->record.run_id;
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
    idle_.wait_for(lock, runner_look_interval);
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

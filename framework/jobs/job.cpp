#include "jobs/job.h"

#include "base/clock.h"
#include "base/ignore_result.h"
#include "jobs/job_event.h"
#include "jobs/job_log.h"
#include "jobs/job_threads.h"

#include <ace/Log_Msg.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <exception>
#include <unistd.h>
#include <utility>

using kestrel::job_run_in_progress;

namespace
{
/// A run that raises more alerts than this repeats itself.
const std::size_t MAX_ALERTS = 1000;

/// The final state of a run that ended in this state without reporting a result.
Job_State end_state(Job_State state)
{
  switch (state) {
  case JOB_STATE_CANCELING:
    return JOB_STATE_CANCELED;
  case JOB_STATE_PAUSING:
    return JOB_STATE_PAUSED;
  case JOB_STATE_NONE:
    return JOB_STATE_ERROR;
  default:
    return job_run_in_progress(state) ? JOB_STATE_ERROR : state;
  }
}
} // namespace

Job::Job(ACE_Refcounted_Auto_Ptr<Job_Definition, ACE_Thread_Mutex> def)
    : definitions_(1, def), activity_(def->id()), log_(std::make_shared<kestrel::Job_Log>())
{
  reference_counting_policy().value(ACE_Event_Handler::Reference_Counting_Policy::ENABLED);
  Job_Activity& act = *activity();
  if (act.magic != Job_Activity::MAGIC) {
    std::memset(static_cast<void*>(&act), 0, sizeof act);
    act.magic = Job_Activity::MAGIC;
  }
  if (job_run_in_progress(act.state)) {
    act.state = JOB_STATE_ERROR; // the process that ran it is gone: it had the record locked
  }
  act.pid = 0;
}

Job::~Job() = default;

ACE_Event_Handler::Reference_Count Job::add_reference()
{
  return ++references_;
}

ACE_Event_Handler::Reference_Count Job::remove_reference()
{
  const Reference_Count left = --references_;
  if (left == 0) {
    delete this;
  }
  return left;
}

Job_Definition& Job::definition()
{
  const std::lock_guard<std::mutex> guard(definition_mutex_);
  return *definitions_.back();
}

Job_Activity* Job::activity()
{
  return activity_.get();
}

std::shared_ptr<ACE_Log_Msg_Callback> Job::log_msg_callback()
{
  return log_;
}

void Job::set_job_thread()
{
  kestrel::set_thread_job_log(log_);
}

Job_State Job::state() const
{
  return activity_->state;
}

int Job::state(Job_State state)
{
  const std::lock_guard<std::mutex> guard(mutex_);
  activity()->state = state;
  return publish();
}

int Job::state_i(Job_State state)
{
  const std::lock_guard<std::mutex> guard(mutex_);
  if (settled_) {
    errno = ESRCH;
    return -1;
  }
  activity()->state = state;
  return publish();
}

int Job::sync(const Opts*)
{
  const std::lock_guard<std::mutex> guard(mutex_);
  return publish();
}

/// Called with the lock, so that the events tell the states in the order in which they came.
int Job::publish()
{
  const int synced = activity_.file().sync();
  return post<kestrel::Job_State_Event>(state()) == 0 ? synced : -1;
}

template <class Event, class... Args> int Job::post(Args&&... args)
{
  try {
    std::unique_ptr<Job_Event> event(new Event(definition(), std::forward<Args>(args)...));
    return Job_Event_Manager::instance()->post(std::move(event));
  } catch (const std::exception&) {
    return -1;
  }
}

/// RUNNING replaces the states before a run's work only. A request that came while the run waited to begin
/// stays, and the executor finds it.
void Job::begin_work(time_t start_time)
{
  const std::lock_guard<std::mutex> guard(mutex_);
  Job_State now = state();
  const bool before_work = now == JOB_STATE_STARTING || now == JOB_STATE_IDLE || now == JOB_STATE_NONE;
  // An executor may also be driven without start(), as in an update; then an earlier result is in the record.
  if (before_work || (!running_ && !job_run_in_progress(now))) {
    activity()->state.compare_exchange(now, JOB_STATE_RUNNING);
  }
  if (!running_) {
    settled_ = false;
  }
  activity()->start_time = start_time;
  activity()->last_run_time = start_time;
  kestrel::ignore_result(post<kestrel::Job_Start_Event>(start_time), "the run goes on unheard");
}

bool Job::settle(Job_State result, int code, const std::string& text)
{
  const std::lock_guard<std::mutex> guard(mutex_);
  if (running_ && settled_) {
    return false;
  }
  settled_ = true;
  result_ = result;
  activity()->state = result;
  activity()->end_time = kestrel::clock().now();
  kestrel::ignore_result(post<kestrel::Job_Outcome_Event>(result, code, text), "the record has the result");
  return true;
}

int Job::complete()
{
  const std::lock_guard<std::mutex> guard(mutex_);
  if (!running_ || !run_hold_) {
    errno = ESRCH;
    return -1;
  }
  const Job_State left = state();
  const Job_State final_state = settled_ && job_run_in_progress(left) ? result_ : end_state(left);
  settled_ = true;
  activity()->state = final_state;
  activity()->pid = 0;
  const int synced = activity_.file().sync();
  const int posted = post<kestrel::Job_End_Event>(final_state);
  // The job must live on for this lock, and its code until the thread has left it.
  kestrel::keep_until_thread_end(std::move(run_hold_));
  run_hold_.reset();
  running_ = false;
  ended_.notify_all();
  return posted == 0 ? synced : -1;
}

bool Job::running() const
{
  const std::lock_guard<std::mutex> guard(mutex_);
  return running_;
}

bool Job::wait_end(int64_t timeout_msec) const
{
  std::unique_lock<std::mutex> guard(mutex_);
  const auto over = [this] { return !running_; };
  if (timeout_msec < 0) {
    ended_.wait(guard, over);
    return true;
  }
  return ended_.wait_for(guard, std::chrono::milliseconds(timeout_msec), over);
}

std::string Job::log_path() const
{
  return log_->path();
}

std::vector<kestrel::Job_Alert> Job::alerts() const
{
  const std::lock_guard<std::mutex> guard(mutex_);
  return alerts_;
}

void Job::add_alert(kestrel::Job_Alert alert)
{
  const std::lock_guard<std::mutex> guard(mutex_);
  if (alerts_.size() < MAX_ALERTS) {
    alerts_.push_back(std::move(alert));
  }
}

kestrel::Job_Hold Job::hold()
{
  add_reference();
  kestrel::count_hold(1);
  // The reference goes before the count: whoever waits for the count may then unload the job's code.
  return kestrel::Job_Hold(this, [](Job* job) {
    job->remove_reference();
    kestrel::count_hold(-1);
  });
}

void Job::hold_until_thread_end()
{
  kestrel::keep_until_thread_end(hold());
}

bool Job::wait_all_runs(int64_t timeout_msec)
{
  return kestrel::wait_no_holds(timeout_msec);
}

unsigned Job::active_runs()
{
  return kestrel::count_holds();
}

void Job::intrusive_add_ref(Job* job)
{
  if (job) {
    job->add_reference();
  }
}

void Job::intrusive_remove_ref(Job* job)
{
  // Assigning to an empty ACE_Intrusive_Auto_Ptr lets go of null.
  if (job) {
    job->remove_reference();
  }
}

#include "jobs/job.h"

#include "jobs/job_log.h"
#include "jobs/job_threads.h"

#include <cerrno>
#include <unistd.h>

// What a host asks of a job, and the slots' defaults.

int Job::setup_ondemand_by_job(const Opts*)
{
  return setup_ondemand_i();
}

int Job::start_i(const Opts*)
{
  return -1;
}

int Job::stop_i(const Opts*)
{
  return -1;
}

int Job::enable_i(const Opts*)
{
  return 0;
}

int Job::disable_i(const Opts*)
{
  return 0;
}

int Job::pause_i(const Opts*)
{
  return -1;
}

int Job::resume_i(const Opts*)
{
  return -1;
}

int Job::abort_i(const Opts*)
{
  return -1;
}

int Job::switch_i(const Opts*)
{
  return -1;
}

int Job::remove_i(bool, const Opts*)
{
  return 0;
}

int Job::update_i(ACE_Refcounted_Auto_Ptr<Job_Definition, ACE_Thread_Mutex>)
{
  return 0;
}

int Job::rollback_i()
{
  return -1;
}

bool Job::can_update_i(Job_State state)
{
  return !kestrel::job_run_in_progress(state);
}

int Job::setup_ondemand_i()
{
  return 0;
}

void* Job::run_i(const Opts*)
{
  return nullptr;
}

int Job::abort_i()
{
  return -1;
}

int Job::start(const Opts* opts)
{
  const std::lock_guard<std::recursive_mutex> control(control_mutex_);
  if (running()) {
    errno = EBUSY;
    return -1;
  }
  if (state() == JOB_STATE_DISABLED) {
    errno = EPERM;
    return -1;
  }
  begin_run();
  if (start_i(opts) != 0) {
    return fail_start();
  }
  // When the slot ran the whole job on this thread, the thread goes on for other things.
  kestrel::release_from_thread(this);
  return 0;
}

void Job::begin_run()
{
  log_->begin_run(definition().id());
  kestrel::Job_Hold run_hold = hold();
  const std::lock_guard<std::mutex> guard(mutex_);
  running_ = true;
  settled_ = false;
  result_ = JOB_STATE_NONE;
  alerts_.clear();
  run_hold_ = std::move(run_hold);
  Job_Activity& act = *activity();
  act.state = JOB_STATE_STARTING;
  act.progress = 0;
  act.original_size = 0;
  act.processed_size = 0;
  act.storage_size = 0;
  act.progress_total = 0;
  act.progress_done = 0;
  act.pid = static_cast<uint32_t>(::getpid());
}

int Job::fail_start()
{
  const int error = errno;
  kestrel::Job_Hold run_hold; // let go after the lock, as it may be the last reference
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    run_hold.swap(run_hold_);
    running_ = false;
    settled_ = true;
    activity()->state = JOB_STATE_ERROR;
    activity()->pid = 0;
    ended_.notify_all();
  }
  errno = error;
  return -1;
}

template <class Slot> int Job::control(Slot slot)
{
  const std::lock_guard<std::recursive_mutex> control(control_mutex_);
  if (!running()) {
    errno = ESRCH;
    return -1;
  }
  return slot();
}

int Job::stop(const Opts* opts)
{
  return control([&] { return stop_i(opts); });
}

int Job::pause(const Opts* opts)
{
  return control([&] { return pause_i(opts); });
}

int Job::resume(const Opts* opts)
{
  return control([&] { return resume_i(opts); });
}

int Job::abort(const Opts* opts)
{
  return control([&] { return abort_i(opts); });
}

int Job::abort()
{
  return control([&] { return abort_i(); });
}

int Job::switch_(const Opts* opts)
{
  return control([&] { return switch_i(opts); });
}

int Job::enable(const Opts* opts)
{
  const std::lock_guard<std::recursive_mutex> control(control_mutex_);
  const int result = enable_i(opts);
  return result == 0 && state() == JOB_STATE_DISABLED ? state(JOB_STATE_IDLE) : result;
}

int Job::disable(const Opts* opts)
{
  const std::lock_guard<std::recursive_mutex> control(control_mutex_);
  if (running()) {
    errno = EBUSY;
    return -1;
  }
  const int result = disable_i(opts);
  return result == 0 ? state(JOB_STATE_DISABLED) : result;
}

int Job::remove(bool force, const Opts* opts)
{
  const std::lock_guard<std::recursive_mutex> control(control_mutex_);
  if (running()) {
    errno = EBUSY;
    return -1;
  }
  const int result = remove_i(force, opts);
  if (result == 0) {
    activity_.file().remove();
  }
  return result;
}

int Job::update(ACE_Refcounted_Auto_Ptr<Job_Definition, ACE_Thread_Mutex> def)
{
  const std::lock_guard<std::recursive_mutex> control(control_mutex_);
  if (def.null() || def->id() != definition().id()) {
    errno = EINVAL; // the record and the log belong to the definition's id
    return -1;
  }
  if (running() || !can_update_i(state())) {
    errno = EBUSY;
    return -1;
  }
  const int result = update_i(def);
  if (result == 0) {
    // A rollback or a listener may still use the one before.
    const std::lock_guard<std::mutex> guard(definition_mutex_);
    definitions_.push_back(def);
  }
  return result;
}

int Job::rollback()
{
  const std::lock_guard<std::recursive_mutex> control(control_mutex_);
  return rollback_i();
}

int Job::setup_ondemand()
{
  const std::lock_guard<std::recursive_mutex> control(control_mutex_);
  return setup_ondemand_i();
}

#pragma once

#include "base/ignore_result.h"
#include "base/uuid.h"
#include "job/thread_helper.h"
#include "jobs/job.h"
#include "jobs/job_event.h"
#include "jobs/job_schedule.h"
#include "json/value.h"

#include <ace/Log_Msg.h>
#include <ace/OS_NS_Thread.h>
#include <ace/Thread_Manager.h>

#include <exception>
#include <map>
#include <memory>
#include <new>
#include <string>

template <class E> class Default_Job_T;

/// What a run's thread is given. The job is not owned: the framework keeps it until the thread has ended.
template <class E> struct Run_Options {
  Default_Job_T<E>* job = nullptr;
  std::map<std::string, json_spirit::Value> opts;
};

/// A job that runs its executor E on a thread of its own, one detached thread for each run, and answers every
/// other request with an executor made for that one call. It cannot be stopped but by abort with options.
/// Threads: as Job.
template <class E> class Default_Job_T : public Job
{
public:
  typedef std::map<std::string, json_spirit::Value> Opts;

  explicit Default_Job_T(ACE_Refcounted_Auto_Ptr<Job_Definition, ACE_Thread_Mutex> def) : Job(def), thr_id_(0)
  {
  }

  int handle_exception(ACE_HANDLE) override { return 0; }

protected:
  int start_i(const Opts* opts) override
  {
    std::unique_ptr<Run_Options<E>> opt(new (std::nothrow) Run_Options<E>);
    if (!opt) {
      ACE_ERROR((LM_ERROR, "Unexpected error in %N:%l, opt is NULL:\n%?\n"));
      return -1;
    }
    opt->job = this;
    if (opts) {
      opt->opts = *opts;
    }
    if (ACE_Thread_Manager::instance()->spawn(&Default_Job_T::run, opt.get(),
                                              THR_NEW_LWP | THR_DETACHED | THR_INHERIT_SCHED, &thr_id_,
                                              nullptr, ACE_DEFAULT_THREAD_PRIORITY) == -1) {
      return -1;
    }
    opt.release(); // the thread's now
    return 0;
  }

  int stop_i(const Opts*) override { return -1; }
  int resume_i(const Opts*) override { return -1; }

  int abort_i(const Opts*) override
  {
    const int result = state_i(JOB_STATE_CANCELING);
    kestrel::ignore_result(ACE_Thread_Manager::instance()->cancel(thr_id_, 0),
                           "the thread may have ended already");
    return result;
  }
  using Job::abort_i;

  int remove_i(bool, const Opts*) override
  {
    for (const Job_Schedule_Ptr& schedule : definition().schedules()) {
      if (schedule->type() == Job_Schedule::ON_DEMAND) {
        kestrel::ignore_result(E(*this).remove_ondemand(), "a removal goes on to the end");
      }
    }
    kestrel::ignore_result(E(*this).remove(), "a removal always succeeds");
    return 0;
  }

  int update_i(ACE_Refcounted_Auto_Ptr<Job_Definition, ACE_Thread_Mutex> def) override
  {
    kestrel::ignore_result(E(*this).update(def), "an executor cannot refuse an update");
    return 0;
  }

  int rollback_i() override
  {
    Thread_Helper helper(THR_NEW_LWP | THR_DETACHED | THR_INHERIT_SCHED, ACE_DEFAULT_THREAD_PRIORITY);
    return helper.spawn(&Default_Job_T::run_rollback, Held_Job{hold(), this}) >= 0 ? 0 : -1;
  }

  int setup_ondemand_i() override { return E(*this).setup_ondemand() ? 0 : -1; }

  void* run_i(const Opts* opts) override
  {
    set_job_thread();
    kestrel::ignore_result(uuid_string_to_binary(definition().uid().c_str(), activity()->uid),
                           "a user id that is no uuid is recorded as zeros");
    {
      E executor(*this);
      kestrel::ignore_result(executor.execute(opts), "the event handler has told the result");
    }
    kestrel::ignore_result(complete(), "nobody is left to tell");
    return nullptr;
  }

private:
  /// Keeps the job while the rollback thread starts; std::bind calls through it as through a pointer.
  struct Held_Job {
    kestrel::Job_Hold hold;
    Default_Job_T* job;
    Default_Job_T& operator*() const { return *job; }
  };

  static ACE_THR_FUNC_RETURN run(void* arg)
  {
    const std::unique_ptr<Run_Options<E>> opt(static_cast<Run_Options<E>*>(arg));
    Default_Job_T* const job = opt->job;
    try {
      return job->run_i(opt->opts.empty() ? nullptr : &opt->opts);
    } catch (const std::exception& e) {
      // Left to itself it would end the process with all its other jobs.
      ACE_ERROR((LM_ERROR, "(%P|%t) Default_Job_T::run: the job ended by an exception: %C\n", e.what()));
    } catch (...) {
      ACE_ERROR((LM_ERROR, "(%P|%t) Default_Job_T::run: the job ended by an unknown exception\n"));
    }
    Job_Event_Handler(*job).handle_failure(-1, nullptr);
    kestrel::ignore_result(job->complete(), "nobody is left to tell");
    return nullptr;
  }

  void* run_rollback()
  {
    hold_until_thread_end();
    kestrel::ignore_result(E(*this).rollback(), "nobody waits for a rollback");
    return nullptr;
  }

  ACE_thread_t thr_id_;
};

/// A job that can be stopped, paused, resumed, switched and aborted: each request only moves the job's state,
/// which its executor polls.
template <class E> class Controllable_Job_T : public Default_Job_T<E>
{
public:
  typedef std::map<std::string, json_spirit::Value> Opts;

  explicit Controllable_Job_T(ACE_Refcounted_Auto_Ptr<Job_Definition, ACE_Thread_Mutex> def)
      : Default_Job_T<E>(def)
  {
  }

protected:
  int stop_i(const Opts*) override { return this->state_i(JOB_STATE_CANCELING); }
  int pause_i(const Opts*) override { return this->state_i(JOB_STATE_PAUSING); }
  int resume_i(const Opts*) override { return this->state_i(JOB_STATE_RUNNING); }
  int switch_i(const Opts*) override { return this->state_i(JOB_STATE_SWITCHING); }
  using Default_Job_T<E>::abort_i;
  int abort_i() override { return this->state_i(JOB_STATE_ABORTING); }
};

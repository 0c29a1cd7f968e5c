#pragma once

#include "jobs/job.h"
#include "jobs/job_event.h"
#include "jobs/tool_watch.h"
#include "process/script.h"

#include <ace/Log_Msg.h>

#include "base/clock.h"
#include "base/ignore_result.h"

#include <map>
#include <memory>
#include <string>
#include <utility>

/// The base of every executor: the sequence that each run of a job goes through, around the executor's own
/// work. An executor lives for one call only (one run, one removal, one update...), so it keeps nothing
/// between calls.
///
/// Threads:   one; the state it polls in the activity record is changed by control requests on other threads.
/// Ownership: the job is not owned and outlives the executor; everything else belongs to the job.
/// Errors:    false = the run did not succeed; the event handler has reported the result, and whoever failed
///            has logged why.
template <class Src, class Opt, class EH> class Job_Executor_T
{
public:
  typedef std::map<std::string, json_spirit::Value> Opts;

  explicit Job_Executor_T(Job& job)
      : job_(job), def_(job.definition()), tgt_(def_.target()), act_(job.activity()), evt_handler_(job),
        src_(dynamic_cast<const Src*>(def_.source())), opts_(dynamic_cast<const Opt*>(def_.options()))
  {
  }
  virtual ~Job_Executor_T() = default;
  Job_Executor_T(const Job_Executor_T&) = delete;
  Job_Executor_T& operator=(const Job_Executor_T&) = delete;

  virtual bool remove() { return true; }
  virtual bool setup_ondemand() { return true; }
  virtual bool remove_ondemand() { return true; }
  virtual bool update(ACE_Refcounted_Auto_Ptr<Job_Definition, ACE_Thread_Mutex>) { return true; }
  virtual bool rollback() { return true; }

protected:
  /// The executor's own work. Returns false, too, when it noticed a request to stop.
  virtual bool execute_i(const Opts* opts) = 0;

  /// A job that was cancelled or paused while the script ran does not go on to its work.
  virtual bool execute_pre_action()
  {
    const bool ok = run_action("pre_action", def_.pre_action(), def_.ignore_pre_action_failure());
    return ok && act_->state == JOB_STATE_RUNNING;
  }

  /// Sets COMPLETING only when there is a script to run; a cancel that came before is then no longer seen as
  /// one.
  virtual bool execute_post_action()
  {
    if (def_.post_action().empty()) {
      return true;
    }
    if (act_->state != JOB_STATE_COMPLETING) {
      kestrel::ignore_result(job_.state(JOB_STATE_COMPLETING),
                             "the record is set even if nobody hears of it");
    }
    return run_action("post_action", def_.post_action(), def_.ignore_post_action_failure());
  }

  virtual bool check_condition() { return true; }
  /// Whether this host is the one that runs the job.
  virtual bool is_active(const Opts*) { return true; }
  /// 0, or the code of the failure.
  virtual int check_password() { return 0; }

public:
  bool execute(const Opts* opts)
  {
    if (!src_) {
      ACE_ERROR((LM_EMERGENCY, "Unexpected error in %N:%l, src_ is NULL:\n%?\n"));
      return false;
    }
    if (!def_.backup_protection_password().empty()) {
      const int code = check_password();
      if (code != 0) {
        evt_handler_.handle_failure(code, nullptr);
        return false;
      }
    }
    if (!is_active(opts)) {
      act_->last_run_time = kestrel::clock().now();
      act_->state = JOB_STATE_SKIPPED;
      return true;
    }
    if (!execute_precondition() || !check_condition()) {
      end_idle();
      return true;
    }
    return execute_work(opts);
  }

  /// What the precondition prints goes nowhere: it is asked at every due time, and its output would fill the
  /// log.
  bool execute_precondition()
  {
    return run_script(def_.precondition(), std::shared_ptr<ACE_Log_Msg_Callback>());
  }

private:
  /// A script that hangs is ended once its job is cancelled.
  bool run_script(const std::string& script, std::shared_ptr<ACE_Log_Msg_Callback> callback)
  {
    return kestrel::execute_watched_script(
        script, std::move(callback), [this](Text_Process_Handler& handler) {
          return std::make_shared<kestrel::Tool_Watch>(job_, handler, "script");
        });
  }

  /// A script may fail without a word: the job's log says which one, unless a request to stop ended it.
  bool run_action(const char* name, const std::string& script, bool ignore_failure)
  {
    if (run_script(script, job_.log_msg_callback())) {
      return true;
    }
    if (act_->state == JOB_STATE_RUNNING || act_->state == JOB_STATE_COMPLETING) {
      ACE_ERROR((ignore_failure ? LM_WARNING : LM_ERROR, "The %C of the job's definition failed%C\n", name,
                 ignore_failure ? ", which the definition ignores" : ""));
    }
    return ignore_failure;
  }

  void end_idle()
  {
    const time_t now = kestrel::clock().now();
    act_->start_time = now;
    act_->last_run_time = now;
    act_->state = JOB_STATE_IDLE;
    kestrel::ignore_result(job_.sync(nullptr), "the record is set even if the disk has it later");
  }

  bool execute_work(const Opts* opts)
  {
    evt_handler_.handle_start_job();
    const bool pre = execute_pre_action();
    const bool ok = pre && execute_i(opts);
    bool post = true;
    if (ok || def_.run_post_action_always()) {
      post = execute_post_action();
    }
    if (pre && ok && post) {
      evt_handler_.handle_success();
      return true;
    }
    report_failure();
    return false;
  }

  void report_failure()
  {
    const Job_State state = act_->state;
    if (state == JOB_STATE_PAUSING) {
      evt_handler_.handle_paused();
    } else if (state == JOB_STATE_CANCELING) {
      evt_handler_.handle_canceled();
    } else {
      evt_handler_.handle_failure(-1, nullptr);
    }
  }

protected:
  Job& job_;
  Job_Definition& def_;
  const Job_Target& tgt_;
  Job_Activity* act_;
  EH evt_handler_;
  const Src* src_;
  const Opt* opts_;
};

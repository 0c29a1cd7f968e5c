#pragma once

#include "jobs/job_activity.h"
#include "jobs/job_alert.h"
#include "jobs/job_definition.h"
#include "jobs/job_types.h"

#include <ace/Event_Handler.h>
#include <ace/Intrusive_Auto_Ptr.h>
#include <ace/Log_Msg_Callback.h>

#include <atomic>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace json_spirit
{
class Value;
}

namespace kestrel
{
class Job_Log;
typedef std::map<std::string, json_spirit::Value> Run_Option_Map;
/// Keeps a job alive and counts as one of its runs until the last copy is gone.
typedef std::shared_ptr<Job> Job_Hold;
} // namespace kestrel

/// A backup or restore job: the base that a module's jobs derive from, and what a host drives.
///
/// Threads:   the public operations may be called from any thread. The control slots (the operations that end
///            in _i) are called one at a time for one job; a run goes on meanwhile on its own thread.
/// Ownership: counted by reference; a new job has one reference, which its creator takes over. From start()
///            until the thread that called complete() has ended the framework holds one more, so that a run's
///            thread may use its raw pointer to the job.
/// Errors:    int results are 0 or -1; a control request without a run to act on fails with errno ESRCH.
/// Crash:     leaves the activity record in the state it had; the next job object of that definition turns a
///            state of a run in progress into ERROR.
///
/// The order of the virtual operations is part of the contract with modules.
class Job : public ACE_Event_Handler
{
public:
  typedef kestrel::Run_Option_Map Opts;

  explicit Job(ACE_Refcounted_Auto_Ptr<Job_Definition, ACE_Thread_Mutex> def);

  /// Counted here and not by the base, whose library is built without the race detector: it would see no
  /// order between the last use of a job and its end.
  Reference_Count add_reference() override;
  Reference_Count remove_reference() override;

  /// On-demand set-up that another job asks for; by default the same as setup_ondemand_i().
  virtual int setup_ondemand_by_job(const Opts* opts);

protected:
  ~Job() override;

  /// Control slots. Where nothing is said, the base refuses with -1.
  virtual int start_i(const Opts* opts);
  virtual int stop_i(const Opts* opts);
  virtual int enable_i(const Opts* opts);  // base: 0
  virtual int disable_i(const Opts* opts); // base: 0
  virtual int pause_i(const Opts* opts);
  virtual int resume_i(const Opts* opts);
  virtual int abort_i(const Opts* opts);
  virtual int switch_i(const Opts* opts);
  virtual int remove_i(bool force, const Opts* opts);                                  // base: 0
  virtual int update_i(ACE_Refcounted_Auto_Ptr<Job_Definition, ACE_Thread_Mutex> def); // base: 0
  virtual int rollback_i();
  virtual bool can_update_i(Job_State state); // base: true when the state is none of a run in progress
  virtual int setup_ondemand_i();             // base: 0
  virtual void* run_i(const Opts* opts);      // base: null
  virtual int abort_i();

public:
  /// For executors. The definition in force; the reference holds as long as the job, after an update too.
  Job_Definition& definition();
  Job_Activity* activity();
  /// Routes lines to the log of the job's present run; drops them when no run has begun. Never null.
  std::shared_ptr<ACE_Log_Msg_Callback> log_msg_callback();
  /// Sends the log lines of the calling thread to the job's log until the thread ends or is given to another
  /// job.
  void set_job_thread();
  /// Sets the state and publishes it.
  int state(Job_State state);
  /// The same for control requests: never replaces the result that the run has already reported (-1, ESRCH).
  int state_i(Job_State state);
  Job_State state() const;
  /// Publishes the activity record.
  int sync(const Opts* opts);
  /// Finishes the run: settles the final state, sends the end event, wakes wait_end(). The last thing a run
  /// calls; it must not touch the job afterwards.
  int complete();

  /// For hosts. start() begins a run unless one is in progress (-1, EBUSY) or the job is disabled (-1,
  /// EPERM).
  int start(const Opts* opts = nullptr);
  int stop(const Opts* opts = nullptr);
  int enable(const Opts* opts = nullptr);
  int disable(const Opts* opts = nullptr);
  int pause(const Opts* opts = nullptr);
  int resume(const Opts* opts = nullptr);
  int abort(const Opts* opts);
  int abort();
  int switch_(const Opts* opts = nullptr);
  /// Asks the job to undo what it keeps for this definition, and removes its activity record.
  int remove(bool force = false, const Opts* opts = nullptr);
  /// Replaces the definition, between runs only (-1, EBUSY).
  int update(ACE_Refcounted_Auto_Ptr<Job_Definition, ACE_Thread_Mutex> def);
  int rollback();
  int setup_ondemand();

  bool running() const;
  /// Waits until no run is in progress; false when the time (real milliseconds, negative: no limit) is over
  /// first.
  [[nodiscard]] bool wait_end(int64_t timeout_msec) const;
  /// The file of the present or last run's log; empty before the first run.
  std::string log_path() const;
  /// The alerts of the present or last run.
  std::vector<kestrel::Job_Alert> alerts() const;
  void add_alert(kestrel::Job_Alert alert);
  /// For the event handler: the run begins its work. RUNNING, unless a control request came first; the times;
  /// the start event.
  void begin_work(time_t start_time);
  /// For the event handler. Reports the result of the run: sets the state and the end time, sends the outcome
  /// event. The first report wins; false for a later one.
  bool settle(Job_State result, int code, const std::string& text);

  /// A reference that also counts as a run for wait_all_runs(): for threads that work for the job outside a
  /// run.
  kestrel::Job_Hold hold();
  /// Keeps a hold until the calling thread has ended.
  void hold_until_thread_end();
  /// Waits until no thread of any job executes module code any more, as must be before a module is unloaded,
  /// and until these threads are gone, as must be before the process exits; false when the time (real
  /// milliseconds, negative: no limit) is over first. Not from a run's thread.
  [[nodiscard]] static bool wait_all_runs(int64_t timeout_msec);
  static unsigned active_runs();

  /// Reference counting for ACE_Intrusive_Auto_Ptr.
  static void intrusive_add_ref(Job* job);
  static void intrusive_remove_ref(Job* job);

private:
  template <class Slot> int control(Slot slot);
  template <class Event, class... Args> int post(Args&&... args);
  int publish();
  void begin_run();
  int fail_start();

  std::atomic<Reference_Count> references_{1};
  mutable std::mutex definition_mutex_;
  std::vector<Job_Definition_Ptr> definitions_; // the last one is in force
  Mem_Map_Handle<Job_Activity, Job_Activity_Path_Conf, 4096u> activity_;
  std::shared_ptr<kestrel::Job_Log> log_;
  mutable std::recursive_mutex control_mutex_; // held while a control slot runs
  mutable std::mutex mutex_;                   // guards what follows; held while a state is set and told
  mutable std::condition_variable ended_;
  bool running_ = false;
  bool settled_ = false;
  Job_State result_ = JOB_STATE_NONE;
  kestrel::Job_Hold run_hold_;
  std::vector<kestrel::Job_Alert> alerts_;
};

inline void intrusive_add_ref(Job* job)
{
  Job::intrusive_add_ref(job);
}
inline void intrusive_remove_ref(Job* job)
{
  Job::intrusive_remove_ref(job);
}

#pragma once

#include "agent/agent_jobs.h"
#include "agent/job_notices.h"
#include "agent/run_history.h"
#include "base/file_lock.h"
#include "jobs/job.h"
#include "jobs/job_event.h"

#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

namespace kestrel
{
class Heartbeats;
class Module_Table;

/// How long one turn of a loop of the job side may take. Its turns wait for the disk.
constexpr int64_t loop_limit_msec = 120 * 1000;

/// Runs jobs: a queue in the order of the requests, a limit on runs at once, and never two runs with the same
/// lock (run_lock_path). A request that waits for such a lock keeps its place, but lets others pass it.
/// Threads:   one thread of its own begins and ends the runs; all operations from any thread.
/// Ownership: module table, notices and heartbeats are not owned and must outlive the runner. A job object
///            exists from its run's begin to its end.
/// Crash:     the records of runs that did not end stay open in the history.
class Job_Runner : private Job_Event_Listener
{
public:
  /// A run is about to begin, has begun, or has ended; it is listed until this has returned. On the runner's
  /// thread, or on the one that cancels a waiting run or stops the runner; without locks.
  typedef std::function<void(const Run_Record& record)> Changed;
  /// Whether a run of the definition may begin now; asked again and again while it may not, with the runner's
  /// lock held. A request that waits for this keeps its place, but lets others pass it.
  typedef std::function<bool(const std::string& definition_id)> May_Begin;

  /// The thread reports to `heartbeats`, unless null, with every turn, whatever the runs do.
  Job_Runner(Module_Table& modules, Job_Notices& notices, unsigned max_concurrent, Changed changed,
             May_Begin may_begin, Heartbeats* heartbeats);
  ~Job_Runner() override;

  void start();
  /// Begins no more runs; requests that wait end as canceled. Waits for the grace time or cancels at once,
  /// then cancels and waits for at most cancel_msec. False when a run is still under way. Milliseconds of
  /// kestrel::clock().
  [[nodiscard]] bool stop(int64_t grace_msec, bool cancel, int64_t cancel_msec);

  /// Ends the grace time of a stop(), of one to come as well: it cancels at once.
  void end_grace();

  struct Status {
    bool queued = false;
    bool running = false;
    Run_Record record;
    Job_State state = JOB_STATE_NONE;
  };

  /// Adds a run to the queue; false when one of its definition is there already, or when the runner stops.
  [[nodiscard]] bool enqueue(const Run_Record& record, const Job_Definition_Ptr& definition,
                             const Job::Opts& options);
  /// False when the definition has no run, waiting or under way.
  [[nodiscard]] bool status(const std::string& definition_id, Status& status) const;
  /// "pause", "resume", "cancel", "abort" or "switch" for the definition's run.
  [[nodiscard]] bool control(const std::string& definition_id, const std::string& action, std::string& run_id,
                             Jobs_Error& error);
  void counts(unsigned& running, unsigned& queued) const;

private:
  struct Run;
  typedef std::shared_ptr<Run> Run_Ptr;
  typedef ACE_Intrusive_Auto_Ptr<Job> Job_Ptr;

  void handle_progress(const Job_Progress_Event& event) override;
  void handle_item(const Job_Item_Event& event) override;
  void handle_state(const Job_State_Event& event) override;

  void work();
  void begin_runs();
  Run_Ptr take_next();
  void begin(const Run_Ptr& run);
  Job_Ptr start_job(const Run& run, std::string& failure) const;
  void end_unstarted(const Run_Ptr& run, const std::string& reason);
  void end_runs();
  bool has_ended(const Run_Ptr& run) const;
  void end(const Run_Ptr& run);
  void end_waiting(const Run_Ptr& run, const std::string& reason);
  void forget(const Run_Ptr& run);
  Run_Record outcome_of(const Run& run, Job& job, uint64_t done_bytes) const;
  Run_Ptr find_run(const std::string& definition_id, bool cancel, Job_Ptr& job, bool& waiting);
  static bool control_job(const Job_Ptr& job, const std::string& action, Jobs_Error& error);
  void cancel_all();
  /// With `grace`, end_grace() ends the wait.
  bool wait_idle(int64_t msec, bool grace);
  Job_Notice notice_of(const Run& run, Job_State state) const;

  Module_Table& modules_;
  Job_Notices& notices_;
  const unsigned max_concurrent_;
  const Changed changed_;
  const May_Begin may_begin_;
  Heartbeats* const heartbeats_;

  mutable std::mutex mutex_; ///< guards what follows; never held while a job or a listener is asked
  std::condition_variable wake_;
  std::condition_variable idle_;
  std::deque<Run_Ptr> queue_;
  std::map<std::string, Run_Ptr> active_; ///< by definition
  bool stopping_ = false;
  bool grace_over_ = false;
  bool ending_ = false;
  std::thread thread_;
};
} // namespace kestrel

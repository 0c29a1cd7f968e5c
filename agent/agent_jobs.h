#pragma once

#include "agent/run_history.h"
#include "jobs/job_types.h"
#include "json/value.h"

#include <cstdint>
#include <ctime>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace kestrel
{
class Heartbeats;
class Module_Table;

/// Why a request about jobs was refused. The codes are those of JSON-RPC answers.
struct Jobs_Error {
  static constexpr int bad_params = -32602;
  static constexpr int internal = -32603;
  static constexpr int busy = -32000;
  static constexpr int unknown_id = -32001;
  static constexpr int refused = -32002; ///< not in the state that the job is in

  int code = 0;
  std::string text;
};

/// What listeners hear of a run: its state changed, or it has moved on.
struct Job_Notice {
  std::string id; ///< of the definition
  std::string run_id;
  Job_State state = JOB_STATE_NONE;
  int progress = 0; ///< percent
  uint64_t done_bytes = 0;
  uint64_t total_bytes = 0;
  std::string item; ///< the object that a run of several objects works on
  time_t time = 0;
};

/// The job side of an agent: keeps definitions and the history of runs in agent.db, runs what is due or asked
/// for, and survives restarts. This is all that the agent's services use.
///
/// Threads:   open(), start(), stop() and the destructor on one thread; the rest from any thread once
///            open() has returned true. The listener is called on threads of this object, never two at
///            once, and must not call back into stop() or wait for a run.
/// Ownership: the module table is not owned and must outlive this object. After stop() no thread runs
///            module code for jobs unless stop() returned false.
/// Errors:    false with an error; out-parameters untouched. What a caller asked for is either stored
///            durably or refused.
/// Crash:     the next open() records runs that were under way as failed and says what they left behind.
class Agent_Jobs
{
public:
  struct Settings {
    std::string database;  ///< empty: agent.db of the component's state directory
    std::string host_uuid; ///< stands in the records of runs and of backups
    unsigned max_concurrent = 2;
    unsigned history_days = 90;
    /// Records that wait while nothing can be stored: then no more notes of skipped times are kept. Runs are.
    unsigned most_unstored = 1000;
    /// Records of ended runs wait for mark_sent() or mark_refused(), however old. False when there is no
    /// server.
    bool server = true;
    /// Where the loops of the schedules and of the runs report with every turn, at least twice a second while
    /// the disk answers, from start() until stop() has ended them. A run may last for hours: its loop turns
    /// meanwhile. Not owned, must outlive this object; null: nobody watches.
    Heartbeats* heartbeats = nullptr;
  };

  Agent_Jobs(Module_Table& modules, Settings settings);
  ~Agent_Jobs();
  Agent_Jobs(const Agent_Jobs&) = delete;
  Agent_Jobs& operator=(const Agent_Jobs&) = delete;

  /// Opens the store, settles what a killed process left, and loads the definitions. Fails when another agent
  /// uses the same store.
  [[nodiscard]] bool open(std::string& error);
  /// Schedules work from now on. Runs may be asked for from now on, too.
  [[nodiscard]] bool start(std::string& error);
  /// Begins no more runs. Waits for the runs under way for the grace time, or cancels them at once; cancels
  /// what is left then and waits for at most another two minutes. False when a run is still under way after
  /// that: module code may be running, so the caller may only end the process. Meanwhile runs may be canceled
  /// from other threads, and afterwards records can still be read and acknowledged.
  [[nodiscard]] bool stop(unsigned grace_seconds, bool cancel);
  /// A stop(), going on or to come, waits no longer for the runs under way and cancels them. From any thread.
  void end_grace();

  /// The complete set of definitions that the server manages: {"id","revision","enabled","document"} each.
  /// Adds, replaces and removes; those of local files stay. A definition whose run is under way is replaced
  /// or removed when that run has ended. `refused` becomes a list of {"id","reason"}; a refused definition is
  /// kept and listed but never run. One that cannot be read leaves the definition known by its id as it was.
  [[nodiscard]] bool sync(const json_spirit::Array& definitions, json_spirit::Array& refused,
                          Jobs_Error& error);
  /// The same for the definition files of a local directory (*.json; the document alone); a directory that
  /// does not exist has none. While a file cannot be read, none of these definitions is removed.
  [[nodiscard]] bool sync_directory(const std::string& directory, json_spirit::Array& refused,
                                    Jobs_Error& error);

  /// Actions: "run" (options go to the job), "pause", "resume", "cancel", "abort", "switch", "enable",
  /// "disable". A paused job whose run has ended is resumed by a new run. `run_id` names the run that was
  /// begun or meant; empty when there is none.
  [[nodiscard]] bool control(const std::string& id, const std::string& action,
                             const json_spirit::Object& options, std::string& run_id, Jobs_Error& error);

  /// {"id","name","revision","state","enabled","running","run_id","next_run","last_run":{...},"refused"}
  /// each; "next_run" and "last_run" are null when there is none; "refused" is there only when the definition
  /// was refused and tells why.
  json_spirit::Array list() const;
  /// Up to `limit` bytes (at most 1 MiB, cut at a character's end) of a run's log:
  /// {"text","next_offset","ended"}. "ended": the run is over and nothing follows.
  [[nodiscard]] bool log(const std::string& run_id, uint64_t offset, uint64_t limit,
                         json_spirit::Object& result, Jobs_Error& error) const;
  /// Ended runs, latest first; of one definition when `id` is not empty.
  [[nodiscard]] bool history(const std::string& id, unsigned limit, json_spirit::Array& runs,
                             Jobs_Error& error) const;

  /// Records of ended runs that the server has neither acknowledged nor refused, oldest first.
  json_spirit::Array unsent_runs(unsigned limit) const;
  /// The server has these; ids that are not known are ignored.
  [[nodiscard]] bool mark_sent(const std::vector<std::string>& run_ids, Jobs_Error& error);
  /// The server will never take these: history() and list() tell why from now on, unsent_runs() leaves them
  /// out.
  [[nodiscard]] bool mark_refused(const std::vector<Refused_Run>& runs, Jobs_Error& error);

  struct Counts {
    unsigned running = 0;
    unsigned queued = 0;
    unsigned definitions = 0;
  };
  Counts counts() const;

  /// Hears every change of state, and progress at most about once a second for each run. Null ends it: no
  /// call into the former listener goes on afterwards.
  void set_listener(std::function<void(const Job_Notice&)> listener);
  /// Called, on a thread of this object, whenever unsent_runs() has something new. Null ends it in the same
  /// way.
  void set_history_listener(std::function<void()> listener);

private:
  struct State;
  std::unique_ptr<State> state_;
};
} // namespace kestrel

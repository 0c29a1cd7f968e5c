#pragma once

#include "agent/agent_jobs.h"
#include "agent/job_database.h"
#include "agent/job_definitions.h"
#include "agent/job_hooks.h"
#include "agent/job_notices.h"
#include "agent/job_presence.h"
#include "agent/job_runner.h"
#include "agent/job_scheduler.h"
#include "agent/job_store.h"
#include "agent/run_history.h"
#include "base/file_lock.h"

#include <condition_variable>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace kestrel
{
/// Known definitions that stay although they are not among those offered.
struct Kept_Definitions {
  std::set<std::string> ids;
  bool all = false;
};

/// What is behind Agent_Jobs: the jobs it knows and the threads that look after them. For agent_jobs*.cpp
/// only. Threads: where nothing else is said, operations are called with the mutex. It is taken before the
/// runner's, and never
///          held while the runner waits for something.
struct Agent_Jobs::State {
  State(Module_Table& module_table, Settings given)
      : modules(module_table), settings(std::move(given)), store(database),
        history(database, settings.server), hooks(modules),
        runner(
            modules, notices, settings.max_concurrent,
            [this](const Run_Record& record) { run_changed(record); },
            [this](const std::string& id) { return !hooks.pending(id); }, settings.heartbeats)
  {
  }

  /// Lets the mutex go, and the modules hear what was added to the hooks when there were `since`; stores that
  /// they have.
  void call_modules(std::unique_lock<std::mutex>& lock, uint64_t since);

  // Start.
  bool load(std::string& error);
  bool settle_interrupted(const std::map<std::string, std::string>& documents, std::string& error);
  /// Adds to the hooks what a former process did not come to tell.
  bool add_untold(std::string& error);
  /// Stores what modules have heard; what cannot be stored now, later. Without the mutex.
  void keep_told();

  // Definitions. With the mutex.
  void adopt(Known_Job& job, time_t after);
  void replace(Known_Job& job, Known_Job other, time_t now);
  void forget(const std::string& id);
  /// Changes and removals that waited for the end of a run; the hooks get them.
  void settle_pending();
  std::map<std::string, Known_Job> read_offers_that_changed(std::vector<Definition_Offer> offers,
                                                            const std::string& origin, time_t now,
                                                            std::set<std::string>& present,
                                                            json_spirit::Array& refused) const;
  void take_over(std::map<std::string, Known_Job> changed, const std::vector<std::string>& removed,
                 time_t now);
  bool apply(std::vector<Definition_Offer> offers, const std::string& origin, const Kept_Definitions& kept,
             json_spirit::Array& refused, Jobs_Error& error);
  /// The same without the mutex; returns when the modules have heard of it.
  bool apply_offers(std::vector<Definition_Offer> offers, const std::string& origin,
                    const Kept_Definitions& kept, json_spirit::Array& refused, Jobs_Error& error);

  // Runs. With the mutex.
  bool ask_run(Known_Job& job, const std::string& trigger, const json_spirit::Object& options,
               const std::string& note, std::string& run_id, Jobs_Error& error);
  /// A request for a job. With `for_runner` it is one for the run under way, and nothing has been done.
  bool control(const std::string& id, const std::string& action, const json_spirit::Object& options,
               std::string& run_id, bool& for_runner, Jobs_Error& error);
  bool set_enabled(Known_Job& job, bool enabled, Jobs_Error& error);
  void note_skipped(const Known_Job& job, time_t at, const std::string& reason);
  void take_due();
  void handle_due(const Job_Scheduler::Due& due);
  Run_Record new_record(const Known_Job& job, const std::string& trigger) const;
  /// Stores the record, later when it cannot be stored now.
  void keep(const Run_Record& record);
  void keep_waiting();
  bool resumable(const Known_Job& job) const { return job.last_run.state == JOB_STATE_PAUSED; }

  void run_changed(const Run_Record& record);
  void schedule_loop();
  void prune(time_t now);
  json_spirit::Object list_entry(const Known_Job& job) const;

  Module_Table& modules;
  const Settings settings;
  File_Lock only_agent;
  Job_Presence presence;
  Job_Database database;
  Job_Store store;
  Run_History history;
  Job_Notices notices;
  Job_Hooks hooks; ///< a change is added with the mutex, and told without it

  std::mutex told_mutex; ///< guards the next two; held while they are stored, so that the newest comes last
  std::map<std::string, Job_Store::Told> unstored_told;
  bool told_waits = false; ///< told once

  mutable std::mutex mutex; ///< guards what follows; taken before the runner's
  std::condition_variable wake;
  std::map<std::string, Known_Job> jobs;
  Job_Scheduler scheduler;
  std::set<std::string> pending;    ///< jobs with a change or removal that waits for the end of their run
  std::vector<Run_Record> unstored; ///< records that did not reach the disk yet
  bool until_failing = false;       ///< told once
  bool record_waits = false;        ///< told once
  bool notes_dropped = false;       ///< told once
  bool stopping = false;
  bool opened = false;
  time_t until_kept = 0;
  time_t pruned_at = 0;
  std::thread scheduling;

  Job_Runner runner; // the first to go
};

/// An entry of a list of refused definitions.
json_spirit::Object refused_definition(const std::string& id, const std::string& reason);
} // namespace kestrel

#pragma once

#include "jobs/job_types.h"
#include "json/value.h"

#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

namespace kestrel
{
class Job_Database;

/// One run of a job, from the moment it was asked for. Times are seconds since the epoch, 0: not yet.
struct Run_Record {
  std::string run_id;
  std::string definition_id;
  uint64_t revision = 0;
  std::string name;
  std::string trigger; ///< "schedule", "console", "restart" (a missed run made up for) or "ondemand"
  Job_State state = JOB_STATE_DISPATCHING;
  time_t queued_at = 0;
  time_t started_at = 0;
  time_t ended_at = 0;
  std::string reason;
  std::string log_path;
  json_spirit::Array alerts; ///< {"category","code","data"} each
  uint64_t done_bytes = 0;
  std::string instance;
  std::string refusal; ///< why the server will never take this record; empty: it may, or it has
  /// When the job had begun last as this run was asked for, by the job's own record: what stands there after a
  /// kill is of this run exactly when it is another time. -1: not known; 0: it had never begun.
  time_t former_start = -1;
};

/// A record that the server refused for good.
struct Refused_Run {
  std::string run_id;
  std::string reason; ///< not empty
};

/// The record as it travels to the server and to consoles; "refusal" is there only when there is one.
json_spirit::Object run_record_json(const Run_Record& record, const std::string& host_uuid);

/// The runs in the agent's database.
/// Threads:   any. Ownership: the database is not owned. Errors: as Job_Database.
class Run_History
{
public:
  /// `wait_for_server`: ended runs stay until a server has acknowledged them, however old.
  Run_History(Job_Database& database, bool wait_for_server)
      : database_(database), wait_for_server_(wait_for_server)
  {
  }

  /// Stores a record, or replaces the one with its run id.
  [[nodiscard]] bool put(const std::vector<Run_Record>& records, std::string& error);
  [[nodiscard]] bool put(const Run_Record& record, std::string& error);

  /// Runs that did not end.
  [[nodiscard]] bool open_runs(std::vector<Run_Record>& records, std::string& error) const;
  /// The last run of every definition that has one. Notes of times that were skipped are no runs.
  [[nodiscard]] bool last_runs(std::vector<Run_Record>& records, std::string& error) const;
  /// The record made last of every definition, notes included.
  [[nodiscard]] bool latest_records(std::vector<Run_Record>& records, std::string& error) const;
  /// `found` is false when there is no such run.
  [[nodiscard]] bool find(const std::string& run_id, Run_Record& record, bool& found,
                          std::string& error) const;
  /// Latest first; of all definitions when `definition_id` is empty.
  [[nodiscard]] bool list(const std::string& definition_id, unsigned limit, std::vector<Run_Record>& records,
                          std::string& error) const;
  /// Ended runs that the server has neither acknowledged nor refused, oldest first.
  [[nodiscard]] bool unsent(unsigned limit, std::vector<Run_Record>& records, std::string& error) const;
  [[nodiscard]] bool mark_sent(const std::vector<std::string>& run_ids, std::string& error);
  /// Keeps the reasons and has the server sent these no more. A record that was acknowledged stays so.
  [[nodiscard]] bool mark_refused(const std::vector<Refused_Run>& runs, std::string& error);
  /// Forgets acknowledged and refused runs that ended before the time, and says which logs they leave.
  [[nodiscard]] bool prune(time_t ended_before, std::vector<std::string>& log_paths, std::string& error);

private:
  bool select(const std::string& rest, std::vector<Run_Record>& records, std::string& error,
              const std::string& key = std::string()) const;

  Job_Database& database_;
  const bool wait_for_server_;
};
} // namespace kestrel

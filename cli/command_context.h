#pragma once

#include "agent/backup_catalog.h"
#include "agent/embedded_host.h"
#include "cli/command_output.h"
#include "storage/pool.h"

#include <cstdint>
#include <string>

namespace kestrel
{
/// An instance that jobs can be run for.
struct Known_Instance {
  std::string name;
  std::string uuid;
  std::string host_uuid;
  std::string host_name; ///< empty: this host, without a server
  bool has_account = false;
};

/// A finished run as exit code and as text.
struct Job_Report {
  int exit_code = EXIT_CODE_FAILED;
  Job_Run_Result run;
  uint64_t bytes = 0; ///< that moved, as last reported
  int64_t duration_msec = 0;
};

/// How the user reads about a run.
struct Job_Words {
  std::string label;              ///< stands before the bar
  std::string what;               ///< names the work in messages: "backup of DB1"
  std::string after_cancel;       ///< what a cancel leaves behind: "nothing of it was kept"
  std::string after_failure = {}; ///< what a failure leaves behind; empty: nothing that matters
};

/// A backup or an export of the catalog.
struct Stored_Reference {
  std::string id;
  std::string resource_uuid;
  bool exported = false;
};

/// What commands need that work the same on one host without a daemon (Session) and through a backup server
/// (Console). The catalog is not part of it: its functions (agent/backup_catalog.h) ask the back end that is
/// in use. Threads: main thread. Errors:  false after fail(), unless there is an `error`.
class Command_Context : public Command_Output
{
public:
  explicit Command_Context(const Command_Line& line) : Command_Output(line) {}
  virtual ~Command_Context() = default;
  Command_Context(const Command_Context&) = delete;
  Command_Context& operator=(const Command_Context&) = delete;

  /// Name of the instance with this uuid, or a shortened uuid when nobody knows it any more.
  virtual std::string instance_name(const std::string& resource_uuid) = 0;
  /// Whether there is an instance with this uuid, and its name.
  virtual bool knows_instance(const std::string& resource_uuid, std::string& name) = 0;
  /// The instance of this name, in the case given or in upper case.
  [[nodiscard]] virtual bool find_instance(const std::string& name, Known_Instance& instance) = 0;
  /// The instance with this uuid, as a backup's record has it.
  [[nodiscard]] virtual bool find_instance_of(const std::string& resource_uuid, Known_Instance& instance) = 0;
  /// Uuid of the named instance; "" for an empty name.
  [[nodiscard]] bool resource_of(const std::string& name, std::string& resource_uuid);

  /// The pool with this id or name; the default pool for an empty text.
  [[nodiscard]] virtual bool find_pool(const std::string& id_or_name, Pool_Info& pool,
                                       std::string& error) = 0;

  /// Whom job definitions for this instance belong to.
  virtual Host_Identity identity_for(const Known_Instance& instance) = 0;
  /// Whether the backup's stored file is in the pool and has its size; else one sentence in `problem`. True,
  /// too, where only the host that does the work can tell.
  [[nodiscard]] virtual bool check_stored(const Backup_Entry& backup, const std::string& pool_id,
                                          std::string& problem) = 0;
  /// Deletes the record of one backup or export, and its stored file unless `keep_file`. False with one
  /// sentence in `problem`; what is left then can be deleted again.
  [[nodiscard]] virtual bool delete_stored(const Stored_Reference& backup, bool keep_file,
                                           std::string& problem) = 0;
  /// Runs a job where the instance is, with progress on the standard error output. SIGINT and SIGTERM send it
  /// one stop request. A run that did not succeed is reported with fail() before this returns.
  virtual Job_Report run_document(const Known_Instance& instance, const std::string& document,
                                  const Job_Words& words) = 0;
  /// Why a backup job that was to continue a chain made a full backup instead, from its log.
  virtual std::string fallback_reason(const Job_Run_Result& run) = 0;
};
} // namespace kestrel

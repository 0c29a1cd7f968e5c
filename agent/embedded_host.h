#pragma once

#include "agent/host_identity.h"
#include "agent/job_presence.h"
#include "agent/module_table.h"
#include "instances/instance_registry.h"
#include "jobs/job_alert.h"
#include "jobs/job_definition_loader.h"
#include "jobs/job_types.h"
#include "storage/pool_registry.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace kestrel
{
/// What one run of a job came to.
struct Job_Run_Result {
  Job_State state = JOB_STATE_NONE;
  std::vector<Job_Alert> alerts;
  std::string log_path;
  /// The first and, where it differs, the last error line of the job's log; empty when there is none.
  std::string reason;
};

/// How a caller follows and steers a run. All functions may be empty.
struct Job_Run_Hooks {
  /// The work has begun. On the event thread.
  std::function<void()> started;
  /// Bytes moved of the bytes announced, at most once a percent. On the event thread.
  std::function<void(uint64_t done_bytes, uint64_t total_bytes)> progress;
  /// The run turned to the next of its objects; number from 1. On the event thread.
  std::function<void(const std::string& item, uint64_t number, uint64_t total)> item;
  /// A remark for the user, such as what the run waits for. On the thread that called run().
  std::function<void(const std::string& text)> note;
  /// Polled ten times a second on the thread that called run(); true sends one stop request to the job.
  std::function<bool()> cancel_requested;
};

/// Module, framework, catalog and storage in one process: all that a host needs to run jobs without a daemon.
/// Threads:   one owner; run() may not be called twice at once.
/// Ownership: owns the module and everything it made. The destructor waits until no thread runs module code.
/// Errors:    false with one sentence in `error`.
/// Crash:     a killed process leaves what the job's own contracts say; the next start removes stale pipes.
class Embedded_Host
{
public:
  /// `stderr_log` shows log lines on the standard error output too.
  struct Options {
    std::string module_path; ///< empty: oscar.so of this installation, found from the running program
    bool stderr_log = false;
  };

  Embedded_Host();
  ~Embedded_Host();
  Embedded_Host(const Embedded_Host&) = delete;
  Embedded_Host& operator=(const Embedded_Host&) = delete;

  [[nodiscard]] bool start(const Options& options, std::string& error);

  Instance_Registry& instances() { return *instances_; }
  Pool_Registry& pools() { return *pools_; }
  Instance_Handler& instance_handler() { return *modules_.instance_handlers().front(); }
  const Host_Identity& identity() const { return identity_; }
  const Job_Definition_Loader& loader() const { return modules_.loader(); }

  /// Runs one job to its end. True when it ran, whatever came of it: `result` tells. Runs of several
  /// processes on one source wait for each other; imports wait for runs of their own definition only.
  [[nodiscard]] bool run(const Job_Definition_Ptr& definition, const Job_Run_Hooks& hooks,
                         Job_Run_Result& result, std::string& error);

private:
  Module_Table modules_; // the last to go
  std::unique_ptr<Instance_Registry> instances_;
  std::unique_ptr<Pool_Registry> pools_;
  Host_Identity identity_;
  Job_Presence presence_;
  bool present_ = false;
};
} // namespace kestrel

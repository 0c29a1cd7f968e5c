#pragma once

#include "agent/agent_jobs.h"
#include "agent/agent_services.h"
#include "agent/agent_settings.h"
#include "agent/host_identity.h"
#include "agent/instance_service.h"
#include "agent/module_table.h"
#include "agent/server_link.h"
#include "agent/service_signals.h"
#include "agent/systemd_notify.h"
#include "base/file_lock.h"
#include "instances/instance_registry.h"
#include "remote/rest_client.h"
#include "rpc/json_rpc_dispatcher.h"
#include "rpc/network_threads.h"

#include <memory>
#include <string>

namespace kestrel
{
/// The agent of a host: runs the jobs of its definitions, and when it is enrolled, does what its backup
/// server asks and keeps catalog, pools and backups there.
///
/// SIGTERM and SIGINT end it: runs under way are waited for or canceled, as agent.toml says; a second one
/// cancels them at once. SIGHUP reads agent.toml and the enrollment again, whole or not at all: settings that
/// are wrong, and an enrollment as another host or a first one, leave everything as it was, which the log
/// says. Of what it takes over, the server's address, key and authority, the log level, the times and the
/// definitions of this host count at once; the log names those that count with the next start
/// (reloaded_config()).
/// Threads:   run() on the main thread, before any other thread was made.
/// Ownership: owns everything it makes.
/// Errors:    run() gives the exit code of the process: 0 after a signal ended it, 1 after one line on the
///            standard error output that says why it did not start.
/// Crash:     the next start reports runs that were under way as failed; records that the server has not
///            acknowledged are sent then.
class Agent_Daemon
{
public:
  struct Options {
    std::string server_url; ///< instead of the one in agent.toml and in the enrollment
    std::string enrollment; ///< file to take over
    std::string config;     ///< empty: agent.toml of the state directory
    bool stderr_log = false;
  };

  explicit Agent_Daemon(Options options);
  ~Agent_Daemon();
  Agent_Daemon(const Agent_Daemon&) = delete;
  Agent_Daemon& operator=(const Agent_Daemon&) = delete;

  [[nodiscard]] int run();

private:
  bool prepare(std::string& error);
  Agent_Settings_Source source() const;
  bool open_log(std::string& error);
  bool open_jobs(std::string& error);
  bool serve(std::string& error);
  bool connect(std::string& error);
  void stop_link();
  Link_Host link_host();
  Report_Outcome post_runs(const json_spirit::Array& records, Report_Answer& answer);
  bool refuse_runs(const std::vector<Refused_Run>& runs);
  void read_local_definitions();

  void turn_until_ended();
  void reload();
  void take(const Agent_Settings& next);
  void stop();
  void give_up();
  /// Ends everything but the jobs. False when a request of the server is still at work.
  bool leave();
  /// Waits for the runs on this thread's behalf; false when some did not end.
  bool stop_jobs();
  std::string status_text() const;
  void tell_status();

  const Options options_;
  Service_Notifier notifier_;
  Heartbeats heartbeats_;
  size_t main_heartbeat_ = 0;
  std::unique_ptr<Watchdog> watchdog_;
  Service_Signals signals_;
  Agent_Settings settings_; ///< in force
  Host_Identity identity_;
  std::string name_;
  File_Lock lock_;
  bool log_opened_ = false;

  // In the order in which they depend on each other.
  Module_Table modules_;
  std::unique_ptr<Instance_Registry> registry_;
  std::unique_ptr<Instance_Service> instances_;
  std::unique_ptr<Agent_Jobs> jobs_;
  std::unique_ptr<Agent_Services> services_;
  JSON_RPC_Dispatcher dispatcher_;
  Network_Threads network_;
  std::mutex link_mutex_; ///< of link_ and rest_, for listeners
  std::shared_ptr<REST_Client> rest_;
  std::shared_ptr<Server_Link> link_;
  std::string report_problem_; ///< the last one logged
  std::string told_status_;
};
} // namespace kestrel

#pragma once

#include "rpc/rest_router.h"
#include "server/agent_hub.h"
#include "server/cluster_round.h"
#include "server/host_gate.h"

#include <memory>
#include <string>

namespace kestrel
{
class Heartbeats;
class Server_Database;

/// Everything of the server that has to do with agents: their connections, the hosts, the choice of cluster
/// nodes, job definitions and runs.
/// Threads:   one owner for start() and stop(); the rest from any thread in between.
/// Ownership: the database is not owned and must outlive it. Stop it before the HTTP server, whose threads
///            serve the connections, and destroy it after.
/// Errors:    false with `error` for the user.
class Agent_Hub_Service
{
public:
  struct Options {
    Cluster_Limits cluster;
    int keep_run_days = 90;
    /// Requests that wait for agents at the same time; fewer than the HTTP server has workers.
    Host_Gate::Limits waiting;
    Heartbeats* heartbeats = nullptr; ///< of its loops; not owned, must outlive stop()
  };

  Agent_Hub_Service(Server_Database& database, const Options& options);
  ~Agent_Hub_Service(); ///< stops
  Agent_Hub_Service(const Agent_Hub_Service&) = delete;
  Agent_Hub_Service& operator=(const Agent_Hub_Service&) = delete;

  /// Before the HTTP server starts.
  void add_to(REST_Router& router);
  /// After the database was opened, before the HTTP server starts.
  [[nodiscard]] bool start(std::string& error);
  void stop();

  /// An agent's WebSocket on /k2/w/agent is open and not started yet. Does not block.
  void connected(const REST_Caller& caller, const std::shared_ptr<Message_Channel>& channel);

  Agent_Hub& hub();

private:
  struct Parts;
  const std::unique_ptr<Parts> parts_;
};
} // namespace kestrel

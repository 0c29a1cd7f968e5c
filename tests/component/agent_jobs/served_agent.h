#pragma once

#include "agent_bench.h"

#include "agent/agent_services.h"
#include "agent/instance_service.h"
#include "agent/server_link.h"
#include "instances/instance_registry.h"
#include "remote/rest_client.h"
#include "rpc/json_rpc_dispatcher.h"
#include "rpc/network_threads.h"
#include "support/simulated_agent.h"

#include <memory>
#include <string>

namespace kestrel_test
{
/// The bench's agent, connected to a backup server as the daemon is: the server's definitions and requests
/// come to it, its catalog and pools are the server's, and its records go there. Threads:   one owner. The
/// upstream of the process is the server's while it lives.
class Served_Agent
{
public:
  explicit Served_Agent(const Enrollment& enrollment);
  ~Served_Agent();
  Served_Agent(const Served_Agent&) = delete;
  Served_Agent& operator=(const Served_Agent&) = delete;

  void connect();
  /// Ends the connection and all threads of the agent. The bench, and with it the process's clock, stays.
  void disconnect();
  /// A definition's document for the server's pool, of the kind that the fields say.
  json_spirit::Object document(kestrel::Job_Definition_Fields fields, unsigned number,
                               const std::string& pool_id) const;

  Agent_Bench agent;
  Physical_Bench& bench = agent.bench;

private:
  kestrel::Link_Host link_host();

  const Enrollment enrollment_;
  kestrel::Instance_Registry registry_{"host-1"};
  kestrel::Instance_Service instances_{registry_, {}};
  kestrel::JSON_RPC_Dispatcher dispatcher_;
  kestrel::Network_Threads network_;
  std::unique_ptr<kestrel::Agent_Services> services_;
  std::unique_ptr<kestrel::REST_Client> rest_;
  std::unique_ptr<kestrel::Server_Link> link_;
  bool disconnected_ = false;
};
} // namespace kestrel_test

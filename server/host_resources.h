#pragma once

#include "rpc/json_rpc_dispatcher.h"
#include "rpc/rest_router.h"
#include "server/cluster_round.h"

#include <string>
#include <vector>

namespace kestrel
{
class Agent_Hub;
class Host_Gate;
struct Host_Status;

/// /k2/r/hosts: the hosts, and calls that are forwarded to their agents.
/// Threads: as the router. Ownership: hub and gate are not owned and must outlive the router.
class Host_Resources
{
public:
  Host_Resources(Agent_Hub& hub, Host_Gate& gate) : hub_(hub), gate_(gate) {}
  void add_to(REST_Router& router);

private:
  REST_Reply list(REST_Request& request);
  REST_Reply show(REST_Request& request);
  REST_Reply forward(REST_Request& request);
  Agent_Call control(const std::string& host_uuid, const json_spirit::Value& params, int seconds,
                     json_spirit::Value& result, JSON_RPC_Error& error);

  Agent_Hub& hub_;
  Host_Gate& gate_;
};

/// A call of an agent for a user who only wants to know something.
struct Gated_Question {
  std::string user;
  std::string host_uuid;
  std::string method;
  int seconds = 0;      ///< that the user waits
  int most_seconds = 0; ///< that the host may be busy with it
};
/// Calls when the gate lets it through. Errors: throws what the gate throws.
Agent_Call ask_through_gate(Agent_Hub& hub, Host_Gate& gate, const Gated_Question& question,
                            const json_spirit::Value& params, json_spirit::Value& result,
                            JSON_RPC_Error& error);

/// The host of this uuid or name. Errors: throws REST_Error 404.
Host_Status find_host_or_refuse(Agent_Hub& hub, const std::string& uuid_or_name);
/// The uuids of a list of uuids and names, without doubles. Errors: throws REST_Error 400.
std::vector<std::string> read_hosts(Agent_Hub& hub, const json_spirit::Array& uuids_and_names);
} // namespace kestrel

#pragma once

#include "agent/agent_jobs.h"
#include "agent/instance_service.h"
#include "rpc/json_rpc_dispatcher.h"

#include <atomic>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace kestrel
{
/// Lets at most so many requests into a handler, and all the others of the same gate, at a time; the rest is
/// answered with JSON_RPC_BUSY. What runs tools goes through one gate, so that it never takes all the threads
/// that also deliver announcements to waiting jobs.
/// Threads:   any number at once.
/// Ownership: the handler is not owned.
class Service_Gate
{
public:
  explicit Service_Gate(unsigned limit) : limit_(limit) {}

  /// False: full. Each true is followed by one leave().
  [[nodiscard]] bool enter();
  void leave();

private:
  const unsigned limit_;
  std::atomic<unsigned> inside_{0};
};

/// The methods with which a server, and consoles through it, see and steer a host: its own and those of its
/// modules.
/// Threads:   bind() before the dispatcher starts; the methods run on the dispatcher's threads.
/// Ownership: jobs, instances and handlers are not owned; all must outlive the dispatcher's stop().
/// Errors:    as JSON-RPC errors to the caller.
class Agent_Services
{
public:
  struct Identity {
    std::string version;
    std::string host_uuid;
    std::string name;
    int64_t started = 0; ///< seconds since 1970
  };
  /// How many requests that run tools may be at work at the same time. The dispatcher needs at least two
  /// threads more.
  static constexpr unsigned slow_limit = 6;
  /// Questions for the node's state run tools too, and have room of their own: who does not answer is left
  /// out of the choice of a node, and people who browse must not bring that about.
  static constexpr unsigned node_state_limit = 6;

  Agent_Services(Identity identity, Agent_Jobs& jobs, Instance_Service& instances);
  ~Agent_Services();
  Agent_Services(const Agent_Services&) = delete;
  Agent_Services& operator=(const Agent_Services&) = delete;

  /// False with `error` when a module binds a method that is taken.
  [[nodiscard]] bool bind(JSON_RPC_Dispatcher& dispatcher,
                          const std::map<std::string, JSON_RPC_Handler*>& handlers, std::string& error);

  /// What a host says of itself at the begin of a connection. Waits for no look at its instances.
  json_spirit::Object hello();

private:
  typedef JSON_RPC_Dispatcher::Method Method;
  class Gated_Handler;

  Method gated(Method method);
  bool status(json_spirit::Value& result);
  bool list_instances(const json_spirit::Value& params, json_spirit::Value& result, JSON_RPC_Error& error);
  bool login(const json_spirit::Value& params, json_spirit::Value& result, JSON_RPC_Error& error);
  bool sync_jobs(const json_spirit::Value& params, json_spirit::Value& result, JSON_RPC_Error& error);
  bool control_job(const json_spirit::Value& params, json_spirit::Value& result, JSON_RPC_Error& error);
  bool job_log(const json_spirit::Value& params, json_spirit::Value& result, JSON_RPC_Error& error);

  const Identity identity_;
  Agent_Jobs& jobs_;
  Instance_Service& instances_;
  Service_Gate gate_;
  Service_Gate node_gate_;
  std::vector<std::unique_ptr<Gated_Handler>> gated_;
};
} // namespace kestrel

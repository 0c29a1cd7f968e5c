#pragma once

#include "rpc/json_rpc_dispatcher.h"
#include "rpc/message_channel.h"
#include "server/cluster_round.h"
#include "json/value.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace kestrel
{
class Heartbeats;
class Server_Database;

/// What the server knows of one host.
struct Host_Status {
  std::string uuid;
  std::string name;
  bool online = false;
  std::string address;
  std::string version;
  int64_t last_seen = 0; ///< seconds since 1970, 0 = never
  json_spirit::Array instances;
  unsigned running_jobs = 0;
};

/// The agents that are connected, and what they told about their hosts.
///
/// A host counts as online from its greeting (agent.hello) until its connection ends. A second connection of
/// a host replaces the first: what still comes over the first is ignored, and calls under way on it fail.
/// What a host told is kept in the database, so that it is known while the host is away. A message of a host
/// that was revoked, or whose key was replaced, since it connected is refused and ends the connection; one
/// that says nothing ends with the next drop_revoked().
/// Threads:   any, several at once. connect() never waits. The listeners are called on threads of the
///            dispatcher, hello and job_state of one host in order, and never after stop().
/// Ownership: the database is not owned and must outlive it. Owns the connections.
/// Units:     milliseconds; times in seconds since 1970.
/// Crash:     the state of jobs under way is told again by each agent's next greeting.
class Agent_Hub
{
public:
  struct Listeners {
    std::function<void(const std::string& host_uuid, const json_spirit::Object& greeting)> hello;
    std::function<void(const std::string& host_uuid, const json_spirit::Object& state)> job_state;
    std::function<void(const std::string& host_uuid)> gone;
  };

  explicit Agent_Hub(Server_Database& database);
  ~Agent_Hub(); ///< stops
  Agent_Hub(const Agent_Hub&) = delete;
  Agent_Hub& operator=(const Agent_Hub&) = delete;

  void set_listeners(Listeners listeners); ///< before start()
  /// Reads what is known of the hosts and begins to serve agents. False with `error` for the user.
  /// `heartbeats` hear of the dispatcher; null: nobody watches; else not owned, and must outlive stop().
  [[nodiscard]] bool start(std::string& error, Heartbeats* heartbeats = nullptr);
  /// Ends all connections and takes no more.
  void stop();

  /// An agent that identified itself as this host has connected; the channel was not started yet. `key_hash`
  /// is that of the key it was admitted with: it may have been replaced since.
  void connect(const std::string& host_uuid, const std::string& name, const std::string& key_hash,
               const std::shared_ptr<Message_Channel>& channel);

  /// Calls the host's agent and waits for its answer.
  Agent_Call ask(const std::string& host_uuid, const std::string& method, const json_spirit::Value& params,
                 int timeout_msec, json_spirit::Value& result, JSON_RPC_Error& error);
  /// True when the agent answered with a result.
  [[nodiscard]] bool call(const std::string& host_uuid, const std::string& method,
                          const json_spirit::Value& params, int timeout_msec, json_spirit::Value& result,
                          JSON_RPC_Error& error);

  /// How one of several hosts answered.
  struct Answer {
    std::string host_uuid;
    Agent_Call call = Agent_Call::offline;
    json_spirit::Value result;
    JSON_RPC_Error error; ///< filled unless it answered
  };
  /// Asks several hosts at once, in the order given.
  std::vector<Answer> ask_all(const std::vector<std::string>& host_uuids, const std::string& method,
                              const json_spirit::Value& params, int timeout_msec);

  bool online(const std::string& host_uuid) const;
  /// Of a host that was enrolled, else its uuid.
  std::string name_of(const std::string& host_uuid) const;
  /// All hosts that were enrolled and not revoked, by name. Throws what the database throws.
  std::vector<Host_Status> hosts() const;
  /// By uuid or name. Throws what the database throws.
  [[nodiscard]] bool find_host(const std::string& uuid_or_name, Host_Status& host) const;
  size_t online_count() const;
  /// Runs under way on all connected hosts.
  size_t running_count() const;
  /// Jobs under way on one host, but for those of one definition.
  unsigned running_jobs(const std::string& host_uuid, const std::string& except_definition) const;
  /// Whether a run of this definition is under way there, as the host told last.
  bool runs(const std::string& host_uuid, const std::string& definition_uuid) const;
  /// What the host last told of this job (job.list's entry and the last job.state), null when nothing.
  json_spirit::Value job_state(const std::string& host_uuid, const std::string& definition_uuid) const;
  /// The agent's present list of jobs.
  void set_jobs(const std::string& host_uuid, const json_spirit::Array& jobs);
  /// The host and the definition of a run that was told of and whose record is not here yet.
  [[nodiscard]] bool find_run(const std::string& run_id, std::string& host_uuid, std::string& definition_uuid,
                              std::string& state) const;
  /// The name of the instance with this uuid on this host, "" when it told of none.
  std::string instance_name(const std::string& host_uuid, const std::string& instance_uuid) const;

  /// Ends connections of hosts that were revoked, or whose key was replaced, since they connected.
  void drop_revoked();
  /// Writes down when the hosts that went away were seen last.
  void keep_last_seen();

private:
  struct State;
  const std::shared_ptr<State> state_;
};
} // namespace kestrel

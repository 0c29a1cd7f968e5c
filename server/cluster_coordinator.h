#pragma once

#include "rpc/json_rpc_dispatcher.h"
#include "server/cluster_history.h"
#include "server/cluster_round.h"

#include <memory>
#include <string>

namespace kestrel
{
class Heartbeats;

/// What the choice of nodes needs of the rest of the server.
class Cluster_Hosts : public Host_View
{
public:
  /// Calls the agent of a host and waits for its answer.
  virtual Agent_Call ask(const std::string& host_uuid, const std::string& method,
                         const json_spirit::Value& params, int timeout_msec, json_spirit::Value& result,
                         JSON_RPC_Error& error) = 0;
  /// What is known of the job. Must not wait for an agent: its request is not answered yet.
  virtual Cluster_Job job_of(const Cluster_Request& request) = 0;
};

/// Chooses the nodes that do the jobs of clusters, and announces each choice to the agents that asked.
///
/// An agent holds a lock while it asks, and needs that lock to take the announcement: so request() never
/// waits for an agent, and an announcement goes out only after written() told that the reply had left.
/// Threads:   request(), written() and the rest from any thread. One thread of its own keeps the time;
///            others wait for agents. written() may come after stop() and after the end of the object.
/// Ownership: hosts and history are not owned and must outlive stop().
/// Errors:    request() throws what the database throws, and REST_Error 429 when too many choices are not
///            over. What fails later stands in the explanation and the log.
/// Crash:     the next start goes on with a choice whose agents may still wait: the same job, the same
///            selection time, and no announcement that may have been sent before. One that nobody waits for
///            is marked interrupted.
class Cluster_Coordinator
{
public:
  /// One request's place in a choice.
  struct Ticket {
    int64_t selection_time = 0;
    std::shared_ptr<void> round;
    unsigned number = 0;
    unsigned asked = 1; ///< how often this very request has come
  };

  Cluster_Coordinator(Cluster_Hosts& hosts, Cluster_History& history, const Cluster_Limits& limits);
  ~Cluster_Coordinator(); ///< stops
  Cluster_Coordinator(const Cluster_Coordinator&) = delete;
  Cluster_Coordinator& operator=(const Cluster_Coordinator&) = delete;

  /// `heartbeats` hears of its threads; null: nobody watches; else not owned, and must outlive stop().
  [[nodiscard]] bool start(std::string& error, Heartbeats* heartbeats = nullptr);
  /// Decides nothing more: to be called before the agents' connections are ended, which would look as if they
  /// had gone.
  void stop_choosing();
  /// Announces nothing more, and keeps all that the next start must know. Waits for calls under way: end the
  /// agents' connections first.
  void stop();

  /// A request that has come before gets the place and the time that it had.
  Ticket request(const Cluster_Request& request);
  /// For a function that tells once whether the reply with this ticket's time left.
  std::function<void(bool written)> reply_listener(const Ticket& ticket);
  /// A host came or went.
  void wake();
  /// The job is about to be run once more: no request from now on joins a choice of before.
  void new_run(const std::string& definition_uuid);

private:
  struct State;
  const std::shared_ptr<State> state_;
};
} // namespace kestrel

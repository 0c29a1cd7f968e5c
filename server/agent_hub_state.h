#pragma once

#include "rpc/json_rpc_peer.h"
#include "server/agent_hub.h"
#include "server/host_jobs.h"
#include "server/host_store.h"

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace kestrel
{
/// What the hub knows of each host, and what the messages of agents change in it. The hub itself asks it, and
/// begins and ends connections.
/// Threads: `mutex` guards `hosts` and `stopped`; the rest is set before the first connection.
struct Agent_Hub::State : std::enable_shared_from_this<Agent_Hub::State> {
  struct Connection {
    std::shared_ptr<Message_Channel> channel;
    std::shared_ptr<JSON_RPC_Peer> peer;
    bool greeted = false;
    int64_t since_msec = 0;
    std::string key_hash; ///< of the key it was admitted with
  };
  typedef std::shared_ptr<Connection> Connection_Ptr;
  struct Host {
    Host_Record record;
    Host_Jobs jobs;
    Connection_Ptr connection;
    bool went = false; ///< since its last_seen was written down
    bool online() const { return connection && connection->greeted; }
  };

  explicit State(Server_Database& given) : database(given), store(given) {}

  Server_Database& database;
  Host_Store store;
  Listeners listeners;
  JSON_RPC_Dispatcher dispatcher;
  mutable std::mutex mutex;
  std::map<std::string, Host> hosts; ///< by uuid
  bool stopped = false;

  [[nodiscard]] bool bind_methods();
  bool greet(Message_Channel& from, const json_spirit::Value& params, json_spirit::Value& result,
             JSON_RPC_Error& error);
  static Host_Record greeted(Host& host, const std::string& name, const std::string& version,
                             const std::string& address, json_spirit::Array& instances,
                             const json_spirit::Array& jobs);
  bool still_admitted(Message_Channel& from);
  bool take_state(Message_Channel& from, const json_spirit::Value& params);
  bool take_instances(Message_Channel& from, const json_spirit::Value& params);
  void ended(const std::string& host_uuid, const Message_Channel* channel, const std::string& why);
  void save(const Host_Record& record);
  Host* current(Message_Channel& from);
  std::shared_ptr<JSON_RPC_Peer> peer_of(const std::string& host_uuid) const;
  Host_Status status(const Host_Record& enrolled) const;
  std::vector<std::pair<std::string, Connection_Ptr>>
  take_invalid(const std::map<std::string, Host_Record>& known);
};
} // namespace kestrel

#pragma once

#include "remote/rest_client.h"
#include "rpc/json_rpc_peer.h"
#include "rpc/network_threads.h"
#include "json/value.h"

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace kestrel_test
{
/// What an enrollment file says.
struct Enrollment {
  std::string url; ///< "https://host:port"
  std::string host_uuid;
  std::string name;
  std::string access_key;
  std::string ca_pem;

  /// The value of the access key header.
  std::string credential() const { return host_uuid + "." + access_key; }
};

/// Reads the text of an enrollment file. Throws when a part is missing.
Enrollment read_enrollment(const std::string& text);

/// An agent that speaks the real protocol over real TLS connections, and does no work.
/// Threads:   connect() and disconnect() by one thread; what it serves runs on threads of its own. on()
///            before the first connect().
/// Ownership: the network threads are not owned and must outlive it.
class Simulated_Agent
{
public:
  typedef kestrel::JSON_RPC_Dispatcher::Method Method;

  Simulated_Agent(kestrel::Network_Threads& threads, Enrollment enrollment);
  ~Simulated_Agent();
  Simulated_Agent(const Simulated_Agent&) = delete;
  Simulated_Agent& operator=(const Simulated_Agent&) = delete;

  /// Serves a method; replaces what it does by itself: a node's state, announcements (kept), job.sync (kept),
  /// job.list, job.control (answers with a new run's id).
  void on(const std::string& method, Method serve);
  /// The same with a module's handler, which is not owned and must outlive the agent.
  void on(const std::string& method, JSON_RPC_Handler* handler);
  /// What check_state answers by itself.
  void set_node(int node_id, bool is_master, bool online);
  void set_instances(json_spirit::Array instances);
  /// How many requests it serves at the same time (2). Before the first connect().
  void set_threads(unsigned threads) { serving_threads_ = threads; }

  /// Dials and greets. False with why in `error`. A connection that is open is let go of without a good-bye
  /// to the server, as another process of the same host would.
  [[nodiscard]] bool connect(std::string& error);
  /// Only dials: the caller greets, or does something else.
  [[nodiscard]] bool dial(std::string& error);
  [[nodiscard]] bool greet(std::string& error);
  void disconnect();
  bool connected() const;
  /// The present connection; null before the first.
  std::shared_ptr<kestrel::JSON_RPC_Peer> peer() const;

  /// What an agent's module does before it runs a cluster's job. False with why in `problem`.
  [[nodiscard]] bool request_selection(const std::string& definition_uuid, bool select_master,
                                       int64_t& selection_time, kestrel::REST_Problem& problem);
  [[nodiscard]] bool tell_state(const std::string& definition_uuid, const std::string& run_id,
                                const std::string& state);
  [[nodiscard]] bool report_runs(const json_spirit::Array& records, std::vector<std::string>& stored,
                                 kestrel::REST_Problem& problem);

  /// Parameters of announcements so far, in order.
  std::vector<json_spirit::Object> announcements() const;
  /// Waits until there are so many.
  [[nodiscard]] bool await_announcements(size_t count) const;
  /// Ids of the definitions of the last job.sync, and how many there were.
  std::vector<std::string> definitions() const;
  size_t syncs() const;
  unsigned questions() const;

  kestrel::REST_Client& rest() { return *rest_; }
  const Enrollment& enrollment() const { return enrollment_; }
  const std::string& uuid() const { return enrollment_.host_uuid; }

private:
  void serve();
  json_spirit::Object greeting() const;

  kestrel::Network_Threads& threads_;
  const Enrollment enrollment_;
  const std::unique_ptr<kestrel::REST_Client> rest_;
  kestrel::JSON_RPC_Dispatcher dispatcher_;
  bool serving_ = false;
  unsigned serving_threads_ = 2;

  mutable std::mutex mutex_;
  std::shared_ptr<kestrel::JSON_RPC_Peer> peer_;
  std::vector<std::pair<std::string, Method>> methods_;
  std::vector<std::pair<std::string, JSON_RPC_Handler*>> handlers_; ///< go before the methods
  std::vector<json_spirit::Object> announcements_;
  std::vector<json_spirit::Object> synced_;
  json_spirit::Array instances_;
  size_t syncs_ = 0;
  unsigned questions_ = 0;
  int node_id_ = 1;
  bool is_master_ = false;
  bool online_ = true;
};

std::string member_text(const json_spirit::Object& object, const char* key);
int64_t member_number(const json_spirit::Object& object, const char* key);
} // namespace kestrel_test

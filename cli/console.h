#pragma once

#include "cli/command_context.h"
#include "cli/console_credentials.h"
#include "remote/rest_client.h"

#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace kestrel
{
/// One host as the server shows it.
struct Served_Host {
  std::string uuid;
  std::string name;
  bool online = false;
  json_spirit::Object json; ///< the whole entry
  json_spirit::Array instances;
};

/// One command being carried out by a backup server.
/// Threads: main thread.
/// Errors:  false after fail(), unless a REST_Problem is taken.
class Console : public Command_Context
{
public:
  explicit Console(const Command_Line& line) : Command_Context(line) {}
  ~Console() override;

  /// Takes up the sign-in and lets this process read the server's catalog.
  [[nodiscard]] bool start();
  const Console_Credentials& credentials() const { return credentials_; }
  REST_Client& client() { return *client_; }

  typedef std::vector<std::string> Parts;
  typedef std::vector<std::pair<std::string, std::string>> Query;

  /// One request below /k2/r/; the reply to a GET is an object.
  [[nodiscard]] bool get(const Parts& parts, const Query& query, json_spirit::Object& reply);
  [[nodiscard]] bool get(const Parts& parts, json_spirit::Object& reply) { return get(parts, {}, reply); }
  /// One request whose answer is a list: the array under `key`, or the whole answer.
  [[nodiscard]] bool get_list(const Parts& parts, const Query& query, const char* key,
                              std::vector<json_spirit::Object>& list);
  /// `body` null: none. A reply that is no object becomes an empty one.
  [[nodiscard]] bool send(const char* method, const Parts& parts, const json_spirit::Value& body,
                          json_spirit::Object& reply);
  /// The same; what went wrong is in `problem` and nothing was said to the user.
  [[nodiscard]] bool try_get(const Parts& parts, const Query& query, json_spirit::Object& reply,
                             REST_Problem& problem);
  [[nodiscard]] bool try_send(const char* method, const Parts& parts, const json_spirit::Value& body,
                              json_spirit::Object& reply, REST_Problem& problem);
  [[nodiscard]] bool try_get_list(const Parts& parts, const Query& query, const char* key,
                                  std::vector<json_spirit::Object>& list, REST_Problem& problem);
  /// Tells the user of a request that failed; `what` may say for what it was. Returns the exit code.
  int fail_request(const REST_Problem& problem, const std::string& what = std::string());
  /// The answer to a GET is missing what it must have: `what` names it. Returns the exit code.
  int fail_answer(const std::string& what);

  /// Calls the agent of a host and waits up to `seconds` for its answer.
  /// The texts of `params` are wiped.
  [[nodiscard]] bool call_host(const Served_Host& host, const std::string& method, json_spirit::Value params,
                               unsigned seconds, json_spirit::Value& result);

  /// All hosts, asked for once a command.
  [[nodiscard]] bool hosts(std::vector<Served_Host>& hosts);
  /// The host with this uuid or name, or the only one whose uuid begins so.
  [[nodiscard]] bool find_host(const std::string& reference, Served_Host& host);
  /// The host's name, or a shortened uuid.
  std::string host_name(const std::string& uuid);
  /// All pools, asked for once a command; the default one's id in `default_id`.
  [[nodiscard]] bool pools(std::vector<Pool_Info>& pools, std::string& default_id, std::string& error);

  std::string instance_name(const std::string& resource_uuid) override;
  bool knows_instance(const std::string& resource_uuid, std::string& name) override;
  /// On the host of --host, else on the only host that has one of this name.
  [[nodiscard]] bool find_instance(const std::string& name, Known_Instance& instance) override;
  [[nodiscard]] bool find_instance_of(const std::string& resource_uuid, Known_Instance& instance) override;
  [[nodiscard]] bool find_pool(const std::string& id_or_name, Pool_Info& pool, std::string& error) override;
  Host_Identity identity_for(const Known_Instance& instance) override;
  [[nodiscard]] bool check_stored(const Backup_Entry& backup, const std::string& pool_id,
                                  std::string& problem) override;
  /// Defines the job on the server for on-demand runs and runs it once.
  [[nodiscard]] bool delete_stored(const Stored_Reference& backup, bool keep_file,
                                   std::string& problem) override;
  Job_Report run_document(const Known_Instance& instance, const std::string& document,
                          const Job_Words& words) override;
  std::string fallback_reason(const Job_Run_Result& run) override;

private:
  bool exchange(const char* method, const std::string& path, const json_spirit::Value& body,
                json_spirit::Value& reply, REST_Problem& problem, unsigned seconds);
  bool exchange_object(const char* method, const std::string& path, const json_spirit::Value& body,
                       json_spirit::Object& reply, REST_Problem& problem, unsigned seconds);
  bool load_hosts(REST_Problem& problem);
  bool load_pools(std::string& error);
  std::vector<Known_Instance> instances_like(const std::string& name, const std::string& uuid);

  Console_Credentials credentials_;
  std::unique_ptr<REST_Client> client_;
  bool upstream_ = false;
  bool hosts_loaded_ = false;
  std::vector<Served_Host> hosts_;
  bool pools_loaded_ = false;
  std::vector<Pool_Info> pools_;
  std::string default_pool_;
  std::string last_run_;
};

/// What the process needs before it speaks to a server: log lines only with --verbose, no death by a closed
/// connection. False after fail().
[[nodiscard]] bool prepare_console(Command_Output& output);
} // namespace kestrel

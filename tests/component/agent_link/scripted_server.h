#pragma once

#include "json/json_util.h"
#include "rpc/http_server.h"
#include "rpc/websocket_channel.h"
#include "support/temp_dir.h"
#include "support/test_certificates.h"

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace kestrel_test
{
/// A backup server that knows nothing and keeps what agents tell it: the product's own HTTPS and WebSocket on a port of
/// 127.0.0.1, with answers that a test chooses.
/// Threads: everything from any thread.
class Agent_Server
{
public:
  enum class Greeting { accept, refuse, ignore, hang_up };

  explicit Agent_Server(kestrel::WebSocket_Limits limits = kestrel::WebSocket_Limits());
  ~Agent_Server();

  unsigned short port() const { return server_.port(); }
  std::string url() const { return "https://127.0.0.1:" + std::to_string(port()); }
  const std::string& ca_pem() const { return ca_.ca_pem(); }
  /// The text of an enrollment file for host_uuid() and access_key(); `port` 0: that of this server.
  std::string enrollment(unsigned short port = 0) const;
  static std::string host_uuid() { return "11111111-2222-4333-8444-555555555555"; }
  static std::string access_key() { return std::string(64, 'a'); }
  static std::string access() { return host_uuid() + "." + access_key(); }

  // What it does from now on.
  std::atomic<int> upgrade_status{101};
  std::atomic<Greeting> greeting{Greeting::accept};
  std::atomic<int> runs_status{200};      ///< of POST runs
  std::atomic<bool> store_nothing{false}; ///< POST runs is answered without a run in "stored"
  std::atomic<bool> hold{false};          ///< reads nothing from its connections after the next message

  // What it was told.
  /// Every request for a connection, with the access keys that came with them.
  std::vector<std::string> keys() const;
  /// Methods of the connection in their order, "agent.hello" among them.
  std::vector<std::string> methods(size_t connection) const;
  size_t greetings() const;
  json_spirit::Object greeting_at(size_t number) const;
  /// Parameters of all notifications of this method, in their order.
  std::vector<json_spirit::Object> notices(const std::string& method) const;
  /// Run ids as they were posted, repeated ones too, whatever the answer was.
  std::vector<std::string> posted() const;
  std::vector<json_spirit::Object> posted_records() const;

  /// Waits until so many greetings and one more were accepted.
  bool wait_greeting(size_t number = 0) const;
  /// Calls the agent of the latest greeted connection and gives its whole answer; without one the test fails.
  json_spirit::Object call(const std::string& method, const json_spirit::Object& params = json_spirit::Object());
  /// The same without a failure when no answer comes within a second.
  bool try_call(const std::string& method, const json_spirit::Object& params, json_spirit::Object& answer);
  /// Sends a text as it is on the latest connection.
  void say(const std::string& text);
  /// Closes the latest connection.
  void hang_up();

private:
  class Connection;
  std::shared_ptr<Connection> latest_greeted() const;
  void add_connection(std::shared_ptr<kestrel::WebSocket_Channel> channel);
  kestrel::REST_Reply answer(kestrel::REST_Request& request, const std::string& target);

  const Certificate_Authority ca_;
  const Temp_Dir files_;
  mutable std::mutex mutex_;
  std::vector<std::string> keys_;
  std::vector<std::shared_ptr<Connection>> connections_; ///< all, in their order
  std::vector<size_t> greeted_;                          ///< positions of those that were accepted
  std::vector<json_spirit::Object> greetings_;
  std::vector<std::pair<std::string, json_spirit::Object>> notices_;
  std::vector<json_spirit::Object> posted_;
  kestrel::HTTP_Server server_;
};
} // namespace kestrel_test

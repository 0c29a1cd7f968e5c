#pragma once

#include "agent/reconnect_delay.h"
#include "agent/run_report.h"
#include "agent/state_outbox.h"
#include "agent/systemd_notify.h"
#include "rpc/network_threads.h"
#include "rpc/tls.h"
#include "rpc/websocket_client.h"
#include "json/value.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace kestrel
{
class JSON_RPC_Dispatcher;
class JSON_RPC_Peer;

/// What a link tells the server, and who gives it.
struct Link_Host {
  /// The parameters of the greeting: who this is, its instances and jobs as they are now. Must not wait for
  /// tools.
  std::function<json_spirit::Object()> hello;
  /// Run records that the server has neither acknowledged nor refused, oldest first.
  std::function<json_spirit::Array(unsigned limit)> unsent_runs;
  /// Sends records. Ends within bounded time.
  std::function<Report_Outcome(const json_spirit::Array& records, Report_Answer& answer)> post_runs;
  /// Notes durably that the server has them.
  std::function<bool(const std::vector<std::string>& run_ids)> acknowledge;
  /// Notes durably that the server will never take them, and tells the log.
  std::function<bool(const std::vector<Refused_Run>& runs)> refuse;
};

/// An agent's connection to its backup server: dials, greets, tells what changes and serves the server's
/// requests; when the connection goes, it waits and dials again, for ever.
///
/// After every greeting the server knows everything, since the greeting holds it all; in between it is told
/// of changes. A slow server gets the newest state of each job only. Run records are sent by POST until they
/// are acknowledged or refused for good, at least once each: when a run ends, with every connection, and
/// every report_msec. Of a batch that the server refuses, the records that it does not want are found by
/// halves, so that they hold up no other. After a report that came to nothing (no server, no usable answer, a
/// disk that is full) only a new connection is a reason to try again before a pause is over, which doubles
/// from report_msec to longest_report_msec.
/// Threads:   start() and stop() by the owner; the rest from any thread and never waiting for the network.
///            Two threads of its own: one for the connection, one for run records.
/// Ownership: dispatcher, network threads and heartbeats (may be null) are not owned and must outlive it.
/// Errors:    problems are logged, once for each new reason; status() tells the last one.
/// Crash:     keeps nothing; records that were not acknowledged are sent again by the next process.
class Server_Link
{
public:
  struct Settings {
    std::string url;    ///< https://host:port of the server
    std::string access; ///< value of the access key header; a secret
    TLS_Client_Options tls;
    WebSocket_Limits limits;
    int hello_msec = 30 * 1000;                   ///< for the answer to the greeting
    int64_t report_msec = 30 * 1000;              ///< between two attempts to report runs
    int64_t longest_report_msec = 10 * 60 * 1000; ///< the same after failures
    unsigned report_batch = 100;                  ///< run records in one request
    size_t most_unsent = 16; ///< texts that may wait in the channel before states are thinned out
    int64_t longest_delay_msec = Reconnect_Delay::longest_msec; ///< before the next dial
    uint32_t seed = 0;                                          ///< of the jitter; 0: random
  };
  struct Status {
    bool connected = false;
    bool refused = false;     ///< the server does not know the access key
    uint64_t connections = 0; ///< greetings that were answered
    std::string problem;      ///< why there is no connection; empty before the first attempt
  };

  Server_Link(Settings settings, Link_Host host, JSON_RPC_Dispatcher& dispatcher, Network_Threads& network,
              Heartbeats* heartbeats);
  ~Server_Link() { stop(); }
  Server_Link(const Server_Link&) = delete;
  Server_Link& operator=(const Server_Link&) = delete;

  void start();
  /// Says good-bye and waits for the threads; a report under way to the server ends first. Not to be started
  /// again.
  void stop();

  void job_changed(const Job_Notice& notice);
  void instances_changed(const json_spirit::Array& instances);
  /// There is a record that the server has not seen.
  void runs_changed();
  /// Sends what is left of the run records now, once; for the end of a process. False when some remain.
  bool report_now();

  Status status() const;

private:
  void run();
  void run_reports();
  /// One connection from dial to end. Gives how long to wait before the next.
  int64_t connect_once();
  std::shared_ptr<JSON_RPC_Peer> start_peer(const std::shared_ptr<WebSocket_Channel>& channel);
  bool use(const std::shared_ptr<JSON_RPC_Peer>& peer);
  bool greet(JSON_RPC_Peer& peer);
  void keep_telling(JSON_RPC_Peer& peer);
  bool tell_next(JSON_RPC_Peer& peer);
  void pause(int64_t msec);
  void note_problem(const std::string& text, bool refused);
  void note_connected();
  int64_t shortened(int64_t delay_msec) const;
  bool report_batches();
  bool report(const json_spirit::Array& records, std::set<std::string>& settled);
  bool settle(const json_spirit::Array& records, const Report_Answer& answer, std::set<std::string>& settled);
  void beat();
  bool stopping() const;

  const Settings settings_;
  const Link_Host host_;
  JSON_RPC_Dispatcher& dispatcher_;
  WebSocket_Client client_;
  Heartbeats* const heartbeats_;
  size_t heartbeat_ = 0;
  Reconnect_Delay delay_;
  State_Outbox outbox_;

  struct Shared;
  const std::shared_ptr<Shared> shared_; ///< outlives this object as long as a connection may still call back
  std::mutex report_mutex_;              ///< one report at a time
  std::thread thread_;
  std::thread report_thread_;
};

/// The parameters of the notification about a job.
json_spirit::Object job_notice_params(const Job_Notice& notice);
} // namespace kestrel

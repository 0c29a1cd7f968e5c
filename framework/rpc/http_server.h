#pragma once

#include "base/heartbeat.h"
#include "rpc/rest_router.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace kestrel
{
class Upgraded_Connection;

/// What one server accepts. Times are in milliseconds, sizes in bytes.
struct HTTP_Limits {
  uint32_t header_bytes = 16u << 10;
  uint64_t body_bytes = 16u << 20;
  uint64_t unchecked_body_bytes = 64u
                                  << 10; ///< a larger body, or one of unknown size, must pass the body gate
  int header_msec = 10000;  ///< from the connection or the first byte of a request to the end of its header
  int request_msec = 60000; ///< from the end of the header to the last byte of the body; the same for a reply
  int idle_msec = 60000;    ///< between two requests of one connection
  unsigned connections = 512;
  unsigned connections_per_address = 128;
  unsigned queued_requests = 1024; ///< waiting for a worker; more are answered with 503
};

struct HTTP_Server_Options {
  std::string address = "0.0.0.0";
  unsigned short port = 0; ///< 0: one that is free
  /// PEM files. Without a certificate the server speaks plain HTTP, and then only on a loopback address.
  std::string certificate_file;
  std::string key_file;
  unsigned io_threads = 2;
  unsigned workers = 8;
  HTTP_Limits limits;
  /// Hears of the threads that read and write, of each by itself, and of those that answer. Null: nobody watches; else
  /// not owned, and must outlive the server.
  Heartbeats* heartbeats = nullptr;
};

/// HTTP/1.1 over TLS 1.2 or later: reads requests, has them answered by a handler, and hands connections that
/// ask for a WebSocket over. Requests of one connection are answered in their order, one at a time.
/// Threads:   start() and stop() by one owner; the handler is called from several worker threads at once, the
///            upgrade handler from one of the threads that do the reading and must not block.
/// Ownership: owns its threads and connections, but not those it handed over.
/// Units:     milliseconds, bytes.
/// Errors:    false with `error` for the user. What a client does wrong is answered with a status and costs
///            that client's connection only; it is logged at LM_DEBUG.
class HTTP_Server
{
public:
  typedef std::function<REST_Reply(REST_Request& request, const std::string& target)> Handler;
  /// Decides about a client that wants a WebSocket, on a worker thread: status 101 lets it in, anything else
  /// is its answer.
  typedef std::function<REST_Reply(REST_Request& request)> Upgrade_Gate;
  /// Takes over the connection of a client that was let in. `request` holds its headers and caller.
  typedef std::function<void(Upgraded_Connection connection, const REST_Request& request)> Upgrade_Handler;

  HTTP_Server();
  ~HTTP_Server(); ///< stops at once
  HTTP_Server(const HTTP_Server&) = delete;
  HTTP_Server& operator=(const HTTP_Server&) = delete;

  /// Before start(): requests for a WebSocket on this path go to `gate` and then to `handler`.
  void add_upgrade(const std::string& path, Upgrade_Gate gate, Upgrade_Handler handler);

  /// Before start(): asked with the header of a request before its large body is read; anything but status
  /// 200 is the answer. So strangers cannot fill the memory.
  void set_body_gate(Handler gate);

  [[nodiscard]] bool start(const HTTP_Server_Options& options, Handler handler, std::string& error);
  /// Accepts nothing more, lets running requests end for at most grace_msec, and closes everything else.
  /// Idempotent. Returns when no thread of the server runs any more, so handlers must end some time.
  /// `before_cut` is called after the grace: it closes the connections that were handed over, which use the
  /// server's threads, and wakes handlers that wait for something.
  void stop(int grace_msec, const std::function<void()>& before_cut = nullptr);

  /// The port it listens on.
  unsigned short port() const;
  /// Reads certificate and key again; new connections use them. On failure the old ones stay in use.
  [[nodiscard]] bool reload_certificate(std::string& error);

  struct Counts {
    uint64_t accepted = 0; ///< connections since the start
    uint64_t refused = 0;  ///< over the limit of connections
    uint64_t requests = 0; ///< answered since the start
    unsigned open = 0;     ///< connections now, those handed over included
  };
  Counts counts() const;

private:
  struct State;
  std::shared_ptr<State> state_;
};
} // namespace kestrel

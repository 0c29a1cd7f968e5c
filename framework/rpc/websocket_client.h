#pragma once

#include "rpc/network_threads.h"
#include "rpc/tls.h"
#include "rpc/websocket_channel.h"

#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace kestrel
{
/// Where to dial and how long each step may take.
struct WebSocket_Dial {
  /// "https://host:port/path" or "wss://...". "http://" and "ws://" only to addresses of the loopback
  /// network.
  std::string url;
  std::vector<std::pair<std::string, std::string>> headers; ///< secrets allowed: never logged
  TLS_Client_Options tls;
  WebSocket_Limits limits;
  int resolve_msec = 10 * 1000;
  int connect_msec = 10 * 1000; ///< for each address of the host
  int tls_msec = 10 * 1000;
  int upgrade_msec = 10 * 1000;
};

/// Why there is no connection.
struct WebSocket_Failure {
  enum Kind {
    none,
    bad_options, ///< the URL or the CA cannot be used: trying again is of no use
    not_found,   ///< the host's name has no address
    unreachable,
    tls,         ///< no common version or cipher, or no TLS at all
    certificate, ///< expired, of an unknown CA, or for another name
    refused,     ///< the server answered with http_status; 401: the key is not (or no longer) known
    protocol,    ///< what answered is no server of ours
    timed_out,
    cancelled
  };
  Kind kind = none;
  int http_status = 0; ///< with `refused`
  std::string message; ///< a sentence: what, where, why, and what to do
};

/// Makes connections to a server.
/// Threads:   dial() on one thread at a time, never a network thread; cancel() from any.
/// Ownership: the threads are not owned and must outlive it and its connections.
/// Errors:    a null pointer with `failure` filled; nothing is logged.
class WebSocket_Client
{
public:
  explicit WebSocket_Client(Network_Threads& threads);
  ~WebSocket_Client();
  WebSocket_Client(const WebSocket_Client&) = delete;
  WebSocket_Client& operator=(const WebSocket_Client&) = delete;

  /// Resolves, connects, shakes hands and upgrades; blocks no longer than the limits add up to.
  [[nodiscard]] std::shared_ptr<WebSocket_Channel> dial(const WebSocket_Dial& dial,
                                                        WebSocket_Failure& failure);
  /// The dial under way and all later ones fail at once.
  void cancel();

private:
  struct State;
  const std::shared_ptr<State> state_;
};
} // namespace kestrel

#pragma once

#include "rpc/json_rpc_peer.h"
#include "rpc/network_threads.h"
#include "rpc/websocket_server.h"
#include "support/temp_dir.h"
#include "support/test_certificates.h"

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace kestrel_test
{
/// The server's end of WebSocket connections on a port of 127.0.0.1 that the kernel chose, without the
/// product's HTTP server: one request is read from each connection and answered. Threads: one of its own for
/// the connections; the functions below are called there.
class WebSocket_Listener
{
public:
  struct Options {
    bool tls = true;
    Certificate certificate; ///< needed with tls
    kestrel::WebSocket_Limits limits;
    /// The status for a request; 101 lets it in. Empty: everybody is let in.
    std::function<int(const kestrel::Upgraded_Connection&)> gate;
    /// Takes the channel. Empty: it is kept for channel().
    std::function<void(std::shared_ptr<kestrel::WebSocket_Channel>)> accepted;
  };

  explicit WebSocket_Listener(const Options& options);
  ~WebSocket_Listener(); ///< cuts what is open
  WebSocket_Listener(const WebSocket_Listener&) = delete;
  WebSocket_Listener& operator=(const WebSocket_Listener&) = delete;

  unsigned short port() const { return port_; }
  /// "https://127.0.0.1:port/k2/w/agent", or http without TLS.
  std::string url() const;
  /// Waits for the n-th channel, counted from 0; null when none came.
  std::shared_ptr<kestrel::WebSocket_Channel> channel(std::size_t number = 0);
  /// Why connections did not become WebSockets.
  std::vector<std::string> errors() const;

  struct Shared;

private:
  const bool tls_;
  unsigned short port_ = 0;
  const std::shared_ptr<Shared> shared_;
  kestrel::Network_Threads threads_;
};
} // namespace kestrel_test

#pragma once

#include "rpc/websocket_channel.h"

#include <functional>
#include <memory>
#include <string>

namespace kestrel
{
/// A connection whose client has asked for a WebSocket, between the HTTP server that has read and checked the
/// request, and the WebSocket that it becomes. Letting go of it closes the connection without an answer.
/// Threads: moved between them; one owner at a time.
class Upgraded_Connection
{
public:
  /// The innards, known to rpc/beast_stream.h only.
  struct Parts;

  explicit Upgraded_Connection(std::unique_ptr<Parts> parts);
  ~Upgraded_Connection();
  Upgraded_Connection(Upgraded_Connection&& other) noexcept;
  Upgraded_Connection& operator=(Upgraded_Connection&& other) noexcept;

  /// The request's path with its query.
  std::string target() const;
  /// The value of a header of the request; "" when absent.
  std::string header(const std::string& name) const;
  /// The client as "address:port".
  std::string address() const;
  Parts* parts() { return parts_.get(); }

private:
  std::unique_ptr<Parts> parts_;
};

/// Answers the upgrade (101, with the sub-protocol when the client offered it) on the connection's own
/// network threads. `done` is called there once: with a channel that waits for its start(), or with null and
/// a sentence in `error`. A channel that nobody takes is closed.
typedef std::function<void(std::shared_ptr<WebSocket_Channel> channel, const std::string& error)>
    WebSocket_Accepted;
void websocket_accept(Upgraded_Connection connection, const WebSocket_Limits& limits,
                      WebSocket_Accepted done);
} // namespace kestrel

#pragma once

#include "rpc/message_channel.h"

#include <cstddef>

namespace kestrel
{
/// The sub-protocol that both sides must agree on.
constexpr const char* WEBSOCKET_RPC_PROTOCOL = "kestrel-rpc";

/// What one WebSocket connection may use up.
struct WebSocket_Limits {
  std::size_t message_bytes = std::size_t(16) << 20;
  std::size_t send_queue_bytes = std::size_t(64) << 20; ///< of texts that wait to be written
  std::size_t send_queue_messages = 4096;
  int ping_msec = 20 * 1000;   ///< how often the other side is asked whether it is there
  int dead_msec = 60 * 1000;   ///< without anything from it for so long, it is not
  int write_msec = 60 * 1000;  ///< for writing one message
  int close_msec = 5 * 1000;   ///< for an orderly close
  int accept_msec = 10 * 1000; ///< for the server's answer to the upgrade
};

/// A Message_Channel over a WebSocket, made by WebSocket_Client::dial() or websocket_accept(). Texts only; a
/// binary message closes the connection.
typedef Message_Channel WebSocket_Channel;
} // namespace kestrel

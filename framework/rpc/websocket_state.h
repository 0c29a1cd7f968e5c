#pragma once

#include "rpc/websocket_channel.h"

#include <cstddef>
#include <deque>
#include <memory>
#include <mutex>
#include <string>

namespace kestrel
{
/// The end of a WebSocket that lives on the network threads, as its users see it.
class WebSocket_Session_Base
{
public:
  virtual ~WebSocket_Session_Base();
  /// Have a look at the state on the network threads. From any thread; returns at once.
  virtual void wake() = 0;
};

/// What users of a connection and its network end share: the texts to be written, and how far it is.
/// Threads:   any.
/// Ownership: shared by both ends, and owns neither; the receiver is not kept.
/// Secrets:   texts that are dropped unsent are wiped; whoever takes one from next() wipes it.
class WebSocket_State
{
public:
  enum class Phase {
    open,
    closing, ///< asked to say good-bye once the queue is empty
    cut,     ///< asked to end without delay
    closed
  };

  WebSocket_State(const WebSocket_Limits& limits, std::string address);
  const WebSocket_Limits limits;
  const std::string address;

  // For users.
  void start(const std::weak_ptr<Message_Receiver>& receiver);
  bool send(const std::string& text);
  void close(const std::string& why);
  bool open() const;
  std::size_t unsent() const;

  // For the network end.
  void attach(const std::weak_ptr<WebSocket_Session_Base>& session);
  Phase phase() const;
  bool started() const;
  std::string why() const;
  std::shared_ptr<Message_Receiver> receiver() const;
  /// Takes the next text to be written. It counts until written() is called.
  bool next(std::string& text);
  void written();
  /// The end, once: drops what is queued and tells the receiver. A reason that was given before wins.
  void finish(const std::string& why);

private:
  void wake_session(std::unique_lock<std::mutex>& lock);

  mutable std::mutex mutex_;
  Phase phase_ = Phase::open;
  std::string why_;
  std::deque<std::string> queue_;
  std::size_t queued_bytes_ = 0;
  std::size_t writing_bytes_ = 0;
  bool started_ = false;
  bool told_ = false;
  std::weak_ptr<Message_Receiver> receiver_;
  std::weak_ptr<WebSocket_Session_Base> session_;
};

/// What users hold.
std::shared_ptr<WebSocket_Channel> websocket_channel(std::shared_ptr<WebSocket_State> state);
} // namespace kestrel

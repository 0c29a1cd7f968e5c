#pragma once

#include "rpc/json_rpc_dispatcher.h"

#include <chrono>
#include <functional>
#include <memory>
#include <string>

namespace kestrel
{
/// One end of a connection on which both sides call each other.
/// Threads:   any, handlers of its dispatcher included; but wait for an answer neither in closed() nor on any
///            other network thread, for that is the thread that reads it.
/// Ownership: shared; its last owner closes the connection. The dispatcher is not owned and may go first:
///            requests are refused then. No thread of its own.
/// Units:     *_msec milliseconds of real time.
/// Errors:    false with `error` filled: the code and text of the other side, or one of JSON_RPC_CLOSED,
///            JSON_RPC_TIMED_OUT and JSON_RPC_NOT_SENT with a sentence. Answers that come late or that nobody
///            asked for are dropped.
/// Crash:     keeps nothing.
class JSON_RPC_Peer : public Message_Receiver, public std::enable_shared_from_this<JSON_RPC_Peer>
{
public:
  struct Options {
    unsigned pending_limit = 256; ///< calls that wait for their answers at the same time
    /// Called once on a network thread, after all waiting calls have failed; never after the peer's end. May
    /// be empty.
    std::function<void(const std::string& why)> closed;
  };
  /// A call under way; see begin_call(). Letting go of it drops the answer.
  class Call;

  /// Takes over the connection and starts to read. Without a dispatcher every request is answered with
  /// JSON_RPC_METHOD_NOT_FOUND.
  static std::shared_ptr<JSON_RPC_Peer> start(const std::shared_ptr<Message_Channel>& channel,
                                              JSON_RPC_Dispatcher* dispatcher, const Options& options);
  static std::shared_ptr<JSON_RPC_Peer> start(const std::shared_ptr<Message_Channel>& channel,
                                              JSON_RPC_Dispatcher* dispatcher);
  ~JSON_RPC_Peer() override;

  /// Asks the other side and waits for its answer. A null `params` leaves them out.
  [[nodiscard]] bool call(const std::string& method, const json_spirit::Value& params, int timeout_msec,
                          json_spirit::Value& result, JSON_RPC_Error& error);
  /// The two halves of call(), for asking several peers at once. begin_call() never fails as such: what went
  /// wrong is told by finish_call(). finish_call() may be called on any thread, once.
  std::shared_ptr<Call> begin_call(const std::string& method, const json_spirit::Value& params);
  [[nodiscard]] static bool finish_call(const std::shared_ptr<Call>& call,
                                        std::chrono::steady_clock::time_point deadline,
                                        json_spirit::Value& result, JSON_RPC_Error& error);
  /// Tells the other side, without an answer. False: not accepted for sending.
  [[nodiscard]] bool notify(const std::string& method, const json_spirit::Value& params);

  /// Fails all waiting calls at once and closes the connection, orderly and in the background.
  void close(const std::string& why = "This side closed the connection.");
  bool open() const;
  const std::shared_ptr<Message_Channel>& channel() const { return channel_; }

  void message(const std::string& text) override;
  void closed(const std::string& why) override;

private:
  struct Pending;
  JSON_RPC_Peer(std::shared_ptr<Message_Channel> channel, JSON_RPC_Dispatcher* dispatcher, Options options);
  void answer_came(json_spirit::Value& message);

  const std::shared_ptr<Message_Channel> channel_;
  JSON_RPC_Dispatcher::Intake intake_;
  const Options options_;
  const std::shared_ptr<Pending> pending_;
};
} // namespace kestrel

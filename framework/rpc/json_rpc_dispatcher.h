#pragma once

#include "rpc/json_rpc.h"
#include "rpc/message_channel.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace kestrel
{
class Heartbeats;

/// The codes that the host itself answers with, and those of its services.
enum JSON_RPC_Code {
  JSON_RPC_PARSE_ERROR = -32700,
  JSON_RPC_INVALID_REQUEST = -32600,
  JSON_RPC_METHOD_NOT_FOUND = -32601,
  JSON_RPC_INVALID_PARAMS = -32602,
  JSON_RPC_INTERNAL_ERROR = -32603,
  JSON_RPC_BUSY = -32000,
  JSON_RPC_UNKNOWN_ID = -32001,
  JSON_RPC_WRONG_STATE = -32002,
  JSON_RPC_NOT_ON_THIS_HOST = -32003,
  // Only seen by the caller (JSON_RPC_Peer), never sent.
  JSON_RPC_CLOSED = 1,    ///< the connection was closed before the answer came
  JSON_RPC_TIMED_OUT = 2, ///< no answer within the time; whether the call took effect is unknown
  JSON_RPC_NOT_SENT = 3   ///< too many calls wait, the request is too large, or the connection is closed
};

struct JSON_RPC_Error {
  int code = JSON_RPC_INTERNAL_ERROR;
  std::string message;
  json_spirit::Value data;
};

/// Whether requests of one connection may overtake each other.
enum class JSON_RPC_Order {
  any,        ///< the default: each runs as soon as a thread is free
  as_received ///< one after the other, among all methods of a connection that are bound so
};

/// Routes JSON-RPC 2.0 requests to what is bound to their method, on threads of its own.
///
/// A batch is answered with one array, in the order of its requests. Notifications are never answered,
/// whatever becomes of them. Beyond the limits a request is answered with JSON_RPC_BUSY and a notification is
/// dropped. A handler that throws, returns false, or returns -1 without having answered is answered for. A
/// handler may answer later: its channel stays until it answers once or the connection goes.
/// Threads:   bind() before start(); receive(), forget() and statistics() from any thread; stop() from any
///            thread, a handler's own included.
/// Ownership: handlers are not owned and must outlive stop(). Holds a connection only while a message of it
///            is being received.
/// Errors:    false as stated; failures of handlers go to the caller as JSON-RPC errors and to the log.
/// Crash:     keeps nothing.
class JSON_RPC_Dispatcher
{
public:
  struct Options {
    unsigned threads = 4; ///< at least two, so that one handler can wait for what another delivers
    unsigned queue_limit = 256;
    unsigned channel_queue_limit = 0;  ///< of these, how many of one connection; 0: no limit of its own
    unsigned open_limit = 4096;        ///< requests whose answers are outstanding, queued or not
    unsigned batch_limit = 1000;       ///< requests of one batch
    int stop_timeout_msec = 30 * 1000; ///< how long stop() waits for handlers
    /// Hear of it while requests wait that a thread could take: it counts as stuck when none was taken for 15
    /// minutes. Null: nobody watches; else not owned, and must outlive stop().
    Heartbeats* heartbeats = nullptr;
  };
  struct Statistics {
    uint64_t received = 0; ///< requests and notifications, batches counted by their parts
    uint64_t refused_busy = 0;
    unsigned queued = 0;
    unsigned running = 0;
    unsigned open = 0;
  };
  /// Fills `result`, or returns false with `error` filled. An exception counts as JSON_RPC_INTERNAL_ERROR,
  /// and that of a JSON accessor or of required() before the function changed anything is better turned into
  /// JSON_RPC_INVALID_PARAMS by the function itself.
  typedef std::function<bool(const json_spirit::Value& params, json_spirit::Value& result,
                             JSON_RPC_Error& error)>
      Method;
  /// The same for a method that wants to know who asks.
  typedef std::function<bool(Message_Channel& from, const json_spirit::Value& params,
                             json_spirit::Value& result, JSON_RPC_Error& error)>
      Peer_Method;

  JSON_RPC_Dispatcher();
  ~JSON_RPC_Dispatcher();
  JSON_RPC_Dispatcher(const JSON_RPC_Dispatcher&) = delete;
  JSON_RPC_Dispatcher& operator=(const JSON_RPC_Dispatcher&) = delete;

  /// False when the name is empty or taken already, nothing is given, or the threads run.
  [[nodiscard]] bool bind(const std::string& method, JSON_RPC_Handler* handler,
                          JSON_RPC_Order order = JSON_RPC_Order::any);
  [[nodiscard]] bool bind(const std::string& method, Method function,
                          JSON_RPC_Order order = JSON_RPC_Order::any);
  [[nodiscard]] bool bind(const std::string& method, Peer_Method function,
                          JSON_RPC_Order order = JSON_RPC_Order::any);

  /// False after one line at LM_ERROR: fewer than two threads asked for, no thread could be made, or it runs.
  [[nodiscard]] bool start(const Options& options);
  bool start_with_defaults() { return start(Options()); }
  /// Refuses what is queued (JSON_RPC_BUSY), waits for the handlers that run, up to stop_timeout_msec; called
  /// on one of its own threads it does not wait for that one. False: some handler still ran and is left to
  /// itself, after one line at LM_ERROR; what it uses must not be freed then. Not to be started again.
  bool stop();

  /// Where the messages of a connection come in. May outlive the dispatcher, which a network thread cannot
  /// keep: requests are then refused as by one that was stopped. Threads: any.
  class Intake;
  Intake intake() const;

  /// What the intake does.
  void receive(const std::shared_ptr<Message_Channel>& from, const std::string& text);
  void receive_message(const std::shared_ptr<Message_Channel>& from, json_spirit::Value message);
  void forget(const Message_Channel* from);

  Statistics statistics() const;

private:
  struct Core;
  const std::shared_ptr<Core> core_;
};

class JSON_RPC_Dispatcher::Intake
{
public:
  explicit Intake(std::shared_ptr<Core> core) : core_(std::move(core)) {}

  /// Takes one message. Never waits for a handler. Errors that the host itself answers are sent before it
  /// returns. A response is answered as an invalid request; JSON_RPC_Peer keeps those away.
  void receive(const std::shared_ptr<Message_Channel>& from, const std::string& text);
  /// The same for a message that was read already (json_network_limits()).
  void receive_message(const std::shared_ptr<Message_Channel>& from, json_spirit::Value message);
  /// The connection has gone: its queued requests are dropped (its notifications are not), and handlers that
  /// wanted to answer later find their channel gone.
  void forget(const Message_Channel* from);

private:
  const std::shared_ptr<Core> core_;
};
} // namespace kestrel

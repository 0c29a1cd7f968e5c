#pragma once

#include "rpc/json_rpc.h"
#include "rpc/message_channel.h"

#include <atomic>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace kestrel
{
/// Gathers the answers to one message, a single request or a batch, and sends them once all are there.
/// Threads:   any.
/// Ownership: shared by the channels of its requests; does not keep the connection.
class JSON_RPC_Answers
{
public:
  static std::shared_ptr<JSON_RPC_Answers> to_request(const std::shared_ptr<Message_Channel>& to);
  static std::shared_ptr<JSON_RPC_Answers> to_batch(const std::shared_ptr<Message_Channel>& to,
                                                    std::size_t parts);

  /// Each part takes exactly one of these three. False: the connection does not take it.
  bool put(std::size_t part, const std::string& text);
  /// An error answer; false too when it cannot be written.
  bool put_error(std::size_t part, int code, const json_spirit::Value& id, const std::string& message);
  /// A notification: nothing is sent for it.
  bool skip(std::size_t part);

  /// Whether an answer of this many bytes still fits into the message.
  bool fits(std::size_t bytes) const;
  bool connected() const;

private:
  JSON_RPC_Answers(const std::shared_ptr<Message_Channel>& to, std::size_t parts, bool batch);
  std::string joined() const;

  const std::weak_ptr<Message_Channel> to_;
  const bool batch_;
  mutable std::mutex mutex_;
  std::vector<std::string> texts_;
  std::size_t missing_;
  std::size_t bytes_ = 2; ///< of the joined message, brackets included
};

/// The channel that one request's handler answers through. The first answer counts, later ones are refused.
/// Without `answers` it belongs to a notification: everything is taken and nothing sent.
class JSON_RPC_Reply_Channel : public JSON_RPC_Channel
{
public:
  /// `answered` is called after the first answer was handed over, on the thread that answers; may be empty.
  JSON_RPC_Reply_Channel(std::shared_ptr<JSON_RPC_Answers> answers, std::size_t part, json_spirit::Value id,
                         std::function<void()> answered);
  bool answered() const { return answered_; }

protected:
  int send_text(const std::string& text) override;

private:
  const std::shared_ptr<JSON_RPC_Answers> answers_;
  const std::size_t part_;
  const json_spirit::Value id_;
  const std::function<void()> when_answered_;
  std::atomic<bool> answered_{false};
};
} // namespace kestrel

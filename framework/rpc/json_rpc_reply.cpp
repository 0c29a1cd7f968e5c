#include "rpc/json_rpc_reply.h"

#include "rpc/json_rpc_dispatcher.h"

#include <exception>
#include <utility>

namespace kestrel
{
JSON_RPC_Answers::JSON_RPC_Answers(const std::shared_ptr<Message_Channel>& to, std::size_t parts, bool batch)
    : to_(to), batch_(batch), texts_(parts), missing_(parts)
{
}

std::shared_ptr<JSON_RPC_Answers> JSON_RPC_Answers::to_request(const std::shared_ptr<Message_Channel>& to)
{
  return std::shared_ptr<JSON_RPC_Answers>(new JSON_RPC_Answers(to, 1, false));
}

std::shared_ptr<JSON_RPC_Answers> JSON_RPC_Answers::to_batch(const std::shared_ptr<Message_Channel>& to,
                                                             std::size_t parts)
{
  return std::shared_ptr<JSON_RPC_Answers>(new JSON_RPC_Answers(to, parts, true));
}

bool JSON_RPC_Answers::fits(std::size_t bytes) const
{
  const std::shared_ptr<Message_Channel> to = to_.lock();
  const std::lock_guard<std::mutex> guard(mutex_);
  // What is still missing must at least find room for an error.
  const std::size_t reserved = batch_ ? missing_ * 256 : 0;
  return !to || bytes_ + reserved + bytes + 1 <= to->message_limit_bytes();
}

bool JSON_RPC_Answers::connected() const
{
  const std::shared_ptr<Message_Channel> to = to_.lock();
  return to && to->open();
}

bool JSON_RPC_Answers::put(std::size_t part, const std::string& text)
{
  std::string message;
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    texts_[part] = text;
    bytes_ += text.size() + 1;
    if (--missing_ > 0)
      return connected();
    message = joined();
  }
  if (message.empty())
    return true;
  const std::shared_ptr<Message_Channel> to = to_.lock();
  return to && to->send(message);
}

bool JSON_RPC_Answers::put_error(std::size_t part, int code, const json_spirit::Value& id,
                                 const std::string& message)
{
  try {
    return put(part, json_rpc_error_text(code, id, message, json_spirit::Value()));
  } catch (const std::exception&) {
    return false;
  }
}

bool JSON_RPC_Answers::skip(std::size_t part)
{
  return put(part, std::string());
}

std::string JSON_RPC_Answers::joined() const
{
  if (!batch_)
    return texts_.front();
  std::string message;
  message.reserve(bytes_);
  for (const std::string& text : texts_)
    if (!text.empty())
      (message += message.empty() ? "[" : ",") += text;
  return message.empty() ? message : message + ']';
}

JSON_RPC_Reply_Channel::JSON_RPC_Reply_Channel(std::shared_ptr<JSON_RPC_Answers> answers, std::size_t part,
                                               json_spirit::Value id, std::function<void()> answered)
    : answers_(std::move(answers)), part_(part), id_(std::move(id)), when_answered_(std::move(answered))
{
}

int JSON_RPC_Reply_Channel::send_text(const std::string& text)
{
  if (answered_.exchange(true))
    return -1;
  if (!answers_)
    return 0;
  bool sent;
  if (answers_->fits(text.size()))
    sent = answers_->put(part_, text);
  else {
    answers_->put_error(part_, JSON_RPC_INTERNAL_ERROR, id_,
                        "The answer is larger than a message may be; ask for less at a time.");
    sent = false;
  }
  if (when_answered_)
    when_answered_();
  return sent ? 0 : -1;
}
} // namespace kestrel

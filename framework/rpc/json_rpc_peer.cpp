#include "rpc/json_rpc_peer.h"

#include "base/ignore_result.h"
#include "base/secure_allocator.h"
#include "json/json_util.h"
#include "json/wipe_json.h"

#include <ace/Log_Msg.h>

#include <algorithm>
#include <condition_variable>
#include <cstdint>
#include <exception>
#include <map>
#include <mutex>
#include <utility>
#include <vector>

namespace kestrel
{
/// The calls that wait, by the ids of their requests. Outlives the peer for as long as one of them.
struct JSON_RPC_Peer::Pending {
  std::mutex mutex;
  std::map<int64_t, std::weak_ptr<Call>> calls;
  int64_t last_id = 0;
  bool closed = false;
  std::string why; ///< it was closed
};

class JSON_RPC_Peer::Call
{
public:
  Call(std::shared_ptr<Pending> pending, std::string method, std::string address)
      : pending_(std::move(pending)), method_(std::move(method)), address_(std::move(address))
  {
  }
  ~Call() { leave(); }

  /// False with the reason filled in: this call will not be sent.
  bool enter(unsigned pending_limit, const std::shared_ptr<Call>& self)
  {
    const std::lock_guard<std::mutex> guard(pending_->mutex);
    if (pending_->closed) {
      fail(JSON_RPC_NOT_SENT, method_ + " was not sent: " + pending_->why);
      return false;
    }
    if (pending_->calls.size() >= pending_limit) {
      fail(JSON_RPC_NOT_SENT, method_ + " was not sent: " + std::to_string(pending_limit) + " calls to " +
                                  address_ + " wait for their answers already; try again later.");
      return false;
    }
    id_ = ++pending_->last_id;
    pending_->calls[id_] = self;
    return true;
  }
  void leave()
  {
    const std::lock_guard<std::mutex> guard(pending_->mutex);
    pending_->calls.erase(id_);
  }

  /// The first outcome counts.
  void succeed(json_spirit::Value result)
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    if (done_)
      return;
    done_ = ok_ = true;
    result_ = std::move(result);
    changed_.notify_all();
  }
  void fail(JSON_RPC_Error error)
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    if (done_)
      return;
    done_ = true;
    error_ = std::move(error);
    changed_.notify_all();
  }
  void fail(int code, std::string message)
  {
    fail(JSON_RPC_Error{code, std::move(message), json_spirit::Value()});
  }

  bool wait(std::chrono::steady_clock::time_point deadline, json_spirit::Value& result, JSON_RPC_Error& error)
  {
    {
      std::unique_lock<std::mutex> lock(mutex_);
      changed_.wait_until(lock, deadline, [this] { return done_; });
    }
    fail(JSON_RPC_TIMED_OUT, "No answer to " + method_ + " came from " + address_ +
                                 " in time; whether it took effect is not known.");
    const std::lock_guard<std::mutex> guard(mutex_);
    if (ok_)
      result = std::move(result_);
    else
      error = std::move(error_);
    return ok_;
  }

  int64_t id() const { return id_; }
  const std::string& method() const { return method_; }
  const std::string& address() const { return address_; }

private:
  const std::shared_ptr<Pending> pending_;
  const std::string method_;
  const std::string address_;
  int64_t id_ = 0; ///< 0: never among the pending ones
  std::mutex mutex_;
  std::condition_variable changed_;
  bool done_ = false;
  bool ok_ = false;
  json_spirit::Value result_;
  JSON_RPC_Error error_;
};

namespace
{
/// A request without `id` is a notification.
std::string request_text(const int64_t* id, const std::string& method, const json_spirit::Value& params)
{
  json_spirit::Object message;
  message.emplace_back("jsonrpc", "2.0");
  if (id)
    message.emplace_back("id", *id);
  message.emplace_back("method", method);
  if (!params.is_null())
    message.emplace_back("params", params);
  json_spirit::Value whole(std::move(message));
  const Wipe_JSON_Guard<json_spirit::Value> wipe_whole(whole);
  return write_json(whole);
}

bool is_answer(const json_spirit::Value& message)
{
  if (message.type() != json_spirit::obj_type)
    return false;
  bool outcome = false;
  for (const json_spirit::Pair& member : message.get_obj()) {
    if (member.name_ == "method")
      return false;
    outcome = outcome || member.name_ == "result" || member.name_ == "error";
  }
  return outcome;
}

/// The error of an answer; false when it is not one.
bool read_error(const json_spirit::Value& value, JSON_RPC_Error& error)
{
  try {
    const json_spirit::Object& members = value.get_obj();
    error.code = required<int>(members, "code");
    error.message = required<std::string>(members, "message");
    error.data = json_spirit::find_value(members, "data");
    // These say what became of a call on this side; the other side cannot know.
    if (error.code >= JSON_RPC_CLOSED && error.code <= JSON_RPC_NOT_SENT)
      error.code = JSON_RPC_INTERNAL_ERROR;
    return true;
  } catch (const std::exception&) {
    return false;
  }
}

/// Every call of `waiting` fails, outside of the lock of those that still wait.
void fail_all(std::map<int64_t, std::weak_ptr<JSON_RPC_Peer::Call>>& waiting, const std::string& why)
{
  for (const auto& entry : waiting)
    if (const std::shared_ptr<JSON_RPC_Peer::Call> call = entry.second.lock())
      call->fail(JSON_RPC_CLOSED, "No answer to " + call->method() + " will come: " + why);
}
} // namespace

JSON_RPC_Peer::JSON_RPC_Peer(std::shared_ptr<Message_Channel> channel, JSON_RPC_Dispatcher* dispatcher,
                             Options options)
    : channel_(std::move(channel)),
      // One that was never started stands in when none is given.
      intake_(dispatcher ? dispatcher->intake() : JSON_RPC_Dispatcher().intake()),
      options_(std::move(options)), pending_(std::make_shared<Pending>())
{
}

std::shared_ptr<JSON_RPC_Peer> JSON_RPC_Peer::start(const std::shared_ptr<Message_Channel>& channel,
                                                    JSON_RPC_Dispatcher* dispatcher, const Options& options)
{
  const std::shared_ptr<JSON_RPC_Peer> peer(new JSON_RPC_Peer(channel, dispatcher, options));
  channel->start(peer);
  return peer;
}

std::shared_ptr<JSON_RPC_Peer> JSON_RPC_Peer::start(const std::shared_ptr<Message_Channel>& channel,
                                                    JSON_RPC_Dispatcher* dispatcher)
{
  return start(channel, dispatcher, Options());
}

JSON_RPC_Peer::~JSON_RPC_Peer()
{
  close("This side let go of the connection.");
  intake_.forget(channel_.get());
}

std::shared_ptr<JSON_RPC_Peer::Call> JSON_RPC_Peer::begin_call(const std::string& method,
                                                               const json_spirit::Value& params)
{
  const auto call = std::make_shared<Call>(pending_, method, channel_->address());
  if (!call->enter(options_.pending_limit, call))
    return call;
  try {
    const int64_t id = call->id();
    std::string text = request_text(&id, method, params);
    const Wipe_Guard<std::string> wipe_text(text);
    if (channel_->send(text))
      return call;
    if (channel_->open())
      call->fail(JSON_RPC_NOT_SENT, method + " was not sent to " + channel_->address() + ": its " +
                                        std::to_string(text.size()) +
                                        " bytes are more than a message may have.");
    else
      call->fail(JSON_RPC_NOT_SENT,
                 method + " was not sent: the connection with " + channel_->address() + " is closed.");
  } catch (const std::exception& failure) {
    call->fail(JSON_RPC_NOT_SENT, method + " was not sent: " + failure.what());
  }
  call->leave();
  return call;
}

bool JSON_RPC_Peer::finish_call(const std::shared_ptr<Call>& call,
                                std::chrono::steady_clock::time_point deadline, json_spirit::Value& result,
                                JSON_RPC_Error& error)
{
  const bool ok = call->wait(deadline, result, error);
  call->leave();
  return ok;
}

bool JSON_RPC_Peer::call(const std::string& method, const json_spirit::Value& params, int timeout_msec,
                         json_spirit::Value& result, JSON_RPC_Error& error)
{
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_msec);
  return finish_call(begin_call(method, params), deadline, result, error);
}

bool JSON_RPC_Peer::notify(const std::string& method, const json_spirit::Value& params)
{
  try {
    std::string text = request_text(nullptr, method, params);
    const Wipe_Guard<std::string> wipe_text(text);
    return channel_->send(text);
  } catch (const std::exception& failure) {
    ACE_ERROR(
        (LM_ERROR, "(%P|%t) JSON_RPC_Peer::notify: %C cannot be sent: %C\n", method.c_str(), failure.what()));
    return false;
  }
}

void JSON_RPC_Peer::close(const std::string& why)
{
  std::map<int64_t, std::weak_ptr<Call>> waiting;
  {
    const std::lock_guard<std::mutex> guard(pending_->mutex);
    if (!pending_->closed)
      pending_->why = why;
    pending_->closed = true;
    waiting.swap(pending_->calls);
  }
  fail_all(waiting, why);
  channel_->close(why);
}

bool JSON_RPC_Peer::open() const
{
  const std::lock_guard<std::mutex> guard(pending_->mutex);
  return !pending_->closed && channel_->open();
}

void JSON_RPC_Peer::closed(const std::string& why)
{
  close(why);
  intake_.forget(channel_.get());
  if (options_.closed)
    options_.closed(why);
}

void JSON_RPC_Peer::message(const std::string& text)
{
  json_spirit::Value message;
  std::string error;
  if (!read_json(text, json_network_limits(), message, error)) {
    intake_.receive(channel_, text);
    return;
  }
  if (is_answer(message)) {
    answer_came(message);
    return;
  }
  if (message.type() == json_spirit::array_type) {
    json_spirit::Array& parts = message.get_array();
    const auto answers = std::stable_partition(
        parts.begin(), parts.end(), [](const json_spirit::Value& part) { return !is_answer(part); });
    const bool only_answers = answers == parts.begin() && answers != parts.end();
    for (auto answer = answers; answer != parts.end(); ++answer)
      answer_came(*answer);
    parts.erase(answers, parts.end());
    if (only_answers)
      return;
  }
  intake_.receive_message(channel_, std::move(message));
}

/// An answer whose call nobody waits for any more, or that nobody made, is dropped: answering it would be
/// answered in turn.
void JSON_RPC_Peer::answer_came(json_spirit::Value& message)
{
  json_spirit::Object& members = message.get_obj();
  const json_spirit::Value& id = json_spirit::find_value(members, "id");
  std::shared_ptr<Call> call; // freed without the lock, which its end takes
  if (id.type() == json_spirit::int_type && !id.is_uint64()) {
    const std::lock_guard<std::mutex> guard(pending_->mutex);
    const auto entry = pending_->calls.find(id.get_int64());
    if (entry != pending_->calls.end())
      call = entry->second.lock();
  }
  if (!call) {
    ACE_DEBUG((LM_DEBUG, "(%P|%t) JSON_RPC_Peer: %C sent an answer that nobody waits for\n",
               channel_->address().c_str()));
    return;
  }
  call->leave();
  const json_spirit::Value& error_value = json_spirit::find_value(members, "error");
  JSON_RPC_Error error;
  if (error_value.is_null()) {
    for (json_spirit::Pair& member : members)
      if (member.name_ == "result")
        call->succeed(std::move(member.value_));
    call->fail(JSON_RPC_INTERNAL_ERROR, "The answer of " + call->address() + " to " + call->method() +
                                            " holds neither a result nor an error.");
  } else if (read_error(error_value, error)) {
    call->fail(std::move(error));
  } else {
    call->fail(JSON_RPC_INTERNAL_ERROR, "The answer of " + call->address() + " to " + call->method() +
                                            " holds an error without code or text.");
  }
}
} // namespace kestrel

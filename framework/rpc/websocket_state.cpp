#include "rpc/websocket_state.h"

#include "base/secure_allocator.h"

#include <utility>

namespace kestrel
{
WebSocket_Session_Base::~WebSocket_Session_Base() = default;

WebSocket_State::WebSocket_State(const WebSocket_Limits& given, std::string peer)
    : limits(given), address(std::move(peer))
{
}

/// Lets go of the lock. The session must not end under it: its end takes it too.
void WebSocket_State::wake_session(std::unique_lock<std::mutex>& lock)
{
  const std::shared_ptr<WebSocket_Session_Base> session = session_.lock();
  lock.unlock();
  if (session)
    session->wake();
}

void WebSocket_State::start(const std::weak_ptr<Message_Receiver>& receiver)
{
  std::unique_lock<std::mutex> lock(mutex_);
  receiver_ = receiver;
  started_ = true;
  if (phase_ != Phase::closed) {
    wake_session(lock);
    return;
  }
  const bool tell = !told_;
  told_ = true;
  const std::string why = why_;
  lock.unlock();
  const std::shared_ptr<Message_Receiver> user = receiver.lock();
  if (user && tell)
    user->closed(why);
}

bool WebSocket_State::send(const std::string& text)
{
  std::unique_lock<std::mutex> lock(mutex_);
  if (phase_ != Phase::open || text.size() > limits.message_bytes)
    return false;
  if (queued_bytes_ + text.size() > limits.send_queue_bytes || queue_.size() >= limits.send_queue_messages) {
    why_ = "The connection with " + address + " was cut: " + std::to_string(queue_.size()) +
           " messages wait to be sent because the other side reads too slowly.";
    phase_ = Phase::cut;
    wake_session(lock);
    return false;
  }
  queue_.push_back(text);
  queued_bytes_ += text.size();
  // With others waiting the session has been woken, or goes on by itself after the one that it writes.
  if (queue_.size() == 1 && writing_bytes_ == 0)
    wake_session(lock);
  return true;
}

void WebSocket_State::close(const std::string& why)
{
  std::unique_lock<std::mutex> lock(mutex_);
  if (phase_ != Phase::open)
    return;
  phase_ = Phase::closing;
  why_ = why;
  wake_session(lock);
}

bool WebSocket_State::open() const
{
  return phase() == Phase::open;
}

std::size_t WebSocket_State::unsent() const
{
  const std::lock_guard<std::mutex> guard(mutex_);
  return queue_.size() + (writing_bytes_ != 0 ? 1 : 0);
}

void WebSocket_State::attach(const std::weak_ptr<WebSocket_Session_Base>& session)
{
  const std::lock_guard<std::mutex> guard(mutex_);
  session_ = session;
}

WebSocket_State::Phase WebSocket_State::phase() const
{
  const std::lock_guard<std::mutex> guard(mutex_);
  return phase_;
}

bool WebSocket_State::started() const
{
  const std::lock_guard<std::mutex> guard(mutex_);
  return started_;
}

std::string WebSocket_State::why() const
{
  const std::lock_guard<std::mutex> guard(mutex_);
  return why_;
}

std::shared_ptr<Message_Receiver> WebSocket_State::receiver() const
{
  const std::lock_guard<std::mutex> guard(mutex_);
  return receiver_.lock();
}

bool WebSocket_State::next(std::string& text)
{
  const std::lock_guard<std::mutex> guard(mutex_);
  if (queue_.empty())
    return false;
  text = std::move(queue_.front());
  queue_.pop_front();
  writing_bytes_ = text.size() + 1; // an empty text is being written too
  queued_bytes_ += 1;
  return true;
}

void WebSocket_State::written()
{
  const std::lock_guard<std::mutex> guard(mutex_);
  queued_bytes_ -= writing_bytes_;
  writing_bytes_ = 0;
}

void WebSocket_State::finish(const std::string& why)
{
  std::unique_lock<std::mutex> lock(mutex_);
  if (phase_ == Phase::closed)
    return;
  phase_ = Phase::closed;
  if (why_.empty())
    why_ = why;
  for (std::string& text : queue_)
    wipe(text);
  queue_.clear();
  if (!started_)
    return;
  told_ = true;
  const std::string reason = why_;
  const std::shared_ptr<Message_Receiver> user = receiver_.lock();
  lock.unlock();
  if (user)
    user->closed(reason);
}

namespace
{
class Channel : public WebSocket_Channel
{
public:
  explicit Channel(std::shared_ptr<WebSocket_State> state) : state_(std::move(state)) {}
  ~Channel() override { state_->close("This side let go of the connection."); }

  void start(const std::weak_ptr<Message_Receiver>& receiver) override { state_->start(receiver); }
  bool send(const std::string& text) override { return state_->send(text); }
  void close(const std::string& why) override { state_->close(why); }
  bool open() const override { return state_->open(); }
  std::string address() const override { return state_->address; }
  std::size_t unsent() const override { return state_->unsent(); }
  std::size_t message_limit_bytes() const override { return state_->limits.message_bytes; }

private:
  const std::shared_ptr<WebSocket_State> state_;
};
} // namespace

std::shared_ptr<WebSocket_Channel> websocket_channel(std::shared_ptr<WebSocket_State> state)
{
  return std::make_shared<Channel>(std::move(state));
}
} // namespace kestrel

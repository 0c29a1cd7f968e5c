#include "rpc/websocket_session.h"

#include "base/secure_allocator.h"

#include <ace/Log_Msg.h>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core/error.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/websocket/rfc6455.hpp>
#include <boost/beast/websocket/stream.hpp>

#include <algorithm>
#include <chrono>
#include <exception>

namespace kestrel
{
namespace
{
namespace asio = boost::asio;
namespace beast = boost::beast;
namespace websocket = boost::beast::websocket;

constexpr std::size_t READ_BYTES = 64 * 1024;
/// A connection that had one large message gives its memory back.
constexpr std::size_t KEPT_BUFFER_BYTES = 1024 * 1024;
/// Texts go in frames of this size, so that a ping need not wait for the end of a large one.
constexpr std::size_t FRAME_BYTES = 16 * 1024;

/// What the other side gave as its reason, without anything that could disturb a log.
std::string printable(beast::string_view text)
{
  std::string result;
  for (const char c : text)
    result += c >= ' ' && c < 127 ? c : '?';
  return result;
}

std::string seconds(int msec)
{
  return msec % 1000 == 0 ? std::to_string(msec / 1000) + " seconds" : std::to_string(msec) + " ms";
}

class Session : public WebSocket_Session, public std::enable_shared_from_this<Session>
{
public:
  Session(Network_Stream stream, std::shared_ptr<WebSocket_State> state, std::shared_ptr<void> place);
  ~Session() override;

  void accept(Beast_Request request, Done done) override;
  void shake_hands(const std::string& host, const std::string& target, const Headers& headers,
                   int timeout_msec, Response& response, Done done) override;
  void run() override;
  void abort() override;
  void wake() override;
  const std::shared_ptr<WebSocket_State>& state() const override { return state_; }

private:
  typedef std::chrono::steady_clock Monotonic;

  void set_timeout(int msec);
  void attend();
  void write();
  void wrote(Error error);
  void say_good_bye();
  void read();
  void have_read(Error error);
  void deliver();
  void ping();
  void tick();
  void check_times();
  std::string end_of(Error error) const;
  void finish(const std::string& why);

  const std::shared_ptr<void> place_; ///< before the stream, to be freed after it
  websocket::stream<Network_Stream, false> stream_;
  asio::steady_timer timer_;
  beast::basic_flat_buffer<secure_allocator<char>> received_;
  const std::shared_ptr<WebSocket_State> state_;
  Beast_Request request_;
  std::string text_; ///< being written
  std::chrono::milliseconds tick_;
  Monotonic::time_point last_received_;
  Monotonic::time_point last_ping_;
  Monotonic::time_point write_began_;
  Monotonic::time_point close_began_;
  bool reading_ = false;
  bool writing_ = false;
  bool pinging_ = false;
  bool closing_ = false;
  bool said_good_bye_ = false;
  bool finished_ = false;
  websocket::close_code close_code_ = websocket::close_code::normal;
};

Session::Session(Network_Stream stream, std::shared_ptr<WebSocket_State> state, std::shared_ptr<void> place)
    : place_(std::move(place)), stream_(std::move(stream)), timer_(stream_.get_executor()),
      state_(std::move(state))
{
  const WebSocket_Limits& limits = state_->limits;
  const int shortest = std::min({limits.ping_msec, limits.dead_msec, limits.write_msec, limits.close_msec});
  tick_ = std::chrono::milliseconds(std::clamp(shortest / 4, 5, 1000));
  stream_.next_layer().lowest().expires_never();
  stream_.read_message_max(limits.message_bytes);
  stream_.write_buffer_bytes(FRAME_BYTES);
  stream_.text(true);
  beast::error_code ignored; // only speed depends on it
  stream_.next_layer().lowest().socket().set_option(asio::ip::tcp::no_delay(true), ignored);
}

/// Still open only when the network threads went away with everything that waited on them.
Session::~Session()
{
  state_->finish("The connection with " + state_->address + " was cut: this side is shutting down.");
}

void Session::set_timeout(int msec)
{
  websocket::stream_base::timeout limits;
  limits.handshake_timeout = std::chrono::milliseconds(msec);
  limits.idle_timeout = websocket::stream_base::none(); // see check_times()
  limits.keep_alive_pings = false;
  stream_.set_option(limits);
}

void Session::accept(Beast_Request request, Done done)
{
  request_ = std::move(request);
  set_timeout(state_->limits.accept_msec);
  const bool offered = websocket::is_upgrade(request_) &&
                       beast::http::token_list(request_[beast::http::field::sec_websocket_protocol])
                           .exists(WEBSOCKET_RPC_PROTOCOL);
  stream_.set_option(websocket::stream_base::decorator([offered](websocket::response_type& response) {
    if (offered)
      response.set(beast::http::field::sec_websocket_protocol, WEBSOCKET_RPC_PROTOCOL);
  }));
  const auto self = shared_from_this();
  stream_.async_accept(request_, [self, done = std::move(done)](Error error) { done(error); });
}

void Session::shake_hands(const std::string& host, const std::string& target, const Headers& headers,
                          int timeout_msec, Response& response, Done done)
{
  set_timeout(timeout_msec);
  stream_.set_option(websocket::stream_base::decorator([headers](websocket::request_type& request) {
    request.set(beast::http::field::sec_websocket_protocol, WEBSOCKET_RPC_PROTOCOL);
    for (const auto& header : headers)
      request.set(header.first, header.second);
  }));
  const auto self = shared_from_this();
  stream_.async_handshake(response, host, target,
                          [self, done = std::move(done)](Error error) { done(error); });
}

void Session::run()
{
  set_timeout(state_->limits.close_msec);
  stream_.control_callback(
      [this](websocket::frame_type, beast::string_view) { last_received_ = Monotonic::now(); });
  last_ping_ = last_received_ = Monotonic::now();
  state_->attach(weak_from_this());
  tick();
  attend();
}

void Session::abort()
{
  stream_.next_layer().lowest().close();
}

void Session::wake()
{
  asio::post(stream_.get_executor(), [self = shared_from_this()] { self->attend(); });
}

void Session::attend()
{
  if (finished_)
    return;
  const WebSocket_State::Phase phase = state_->phase();
  if (phase == WebSocket_State::Phase::cut) {
    finish(state_->why());
    return;
  }
  if (phase == WebSocket_State::Phase::closing && !closing_) {
    closing_ = true;
    close_began_ = Monotonic::now();
  }
  if (state_->started() && !reading_) {
    reading_ = true;
    last_received_ = Monotonic::now();
    read();
  }
  write();
}

void Session::write()
{
  if (writing_ || finished_ || said_good_bye_)
    return;
  if (!state_->next(text_)) {
    if (closing_)
      say_good_bye();
    return;
  }
  writing_ = true;
  write_began_ = Monotonic::now();
  stream_.async_write(asio::buffer(text_),
                      [self = shared_from_this()](Error error, std::size_t) { self->wrote(error); });
}

void Session::wrote(Error error)
{
  writing_ = false;
  state_->written();
  wipe(text_);
  if (text_.capacity() > KEPT_BUFFER_BYTES)
    std::string().swap(text_);
  if (!error)
    write();
  else if (!reading_) // else the reading end learns it too, and maybe more of the reason
    finish(end_of(error));
}

void Session::say_good_bye()
{
  said_good_bye_ = true;
  stream_.async_close(close_code_,
                      [self = shared_from_this()](Error error) { self->finish(self->end_of(error)); });
}

void Session::read()
{
  stream_.async_read_some(received_, READ_BYTES,
                          [self = shared_from_this()](Error error, std::size_t) { self->have_read(error); });
}

void Session::have_read(Error error)
{
  if (finished_)
    return;
  if (error) {
    // While this side says good-bye its own operation tells the end.
    if (!said_good_bye_)
      finish(end_of(error));
    return;
  }
  last_received_ = Monotonic::now();
  if (stream_.is_message_done())
    deliver();
  if (!finished_)
    read();
}

void Session::deliver()
{
  if (!stream_.got_text()) {
    close_code_ = websocket::close_code::unknown_data;
    state_->close(state_->address + " sent a binary message; is it a peer of ours?");
  } else if (const std::shared_ptr<Message_Receiver> receiver = state_->receiver()) {
    const asio::const_buffer message = received_.data();
    std::string text(static_cast<const char*>(message.data()), message.size());
    const Wipe_Guard<std::string> wipe_text(text);
    try {
      receiver->message(text);
    } catch (const std::exception& failure) {
      ACE_ERROR((LM_ERROR, "(%P|%t) WebSocket_Session: a message of %C cannot be taken: %C\n",
                 state_->address.c_str(), failure.what()));
      finish("The connection with " + state_->address + " was cut: " + failure.what() + ".");
    }
  }
  const asio::mutable_buffer used = received_.data();
  ::explicit_bzero(used.data(), used.size());
  received_.consume(used.size());
  if (received_.capacity() > KEPT_BUFFER_BYTES)
    received_.shrink_to_fit();
}

void Session::ping()
{
  pinging_ = true;
  last_ping_ = Monotonic::now();
  stream_.async_ping({}, [self = shared_from_this()](Error) { self->pinging_ = false; });
}

void Session::tick()
{
  timer_.expires_after(tick_);
  timer_.async_wait([self = shared_from_this()](Error error) {
    if (error || self->finished_)
      return;
    self->check_times();
    if (!self->finished_)
      self->tick();
  });
}

void Session::check_times()
{
  const auto now = Monotonic::now();
  const auto passed = [now](Monotonic::time_point since, int msec) {
    return now - since >= std::chrono::milliseconds(msec);
  };
  const WebSocket_Limits& limits = state_->limits;
  const std::string begin = "The connection with " + state_->address + " was cut: ";
  if (closing_ && passed(close_began_, limits.close_msec))
    finish(begin + "it did not close within " + seconds(limits.close_msec) + ".");
  else if (reading_ && passed(last_received_, limits.dead_msec))
    finish(begin + "nothing came from the other side for " + seconds(limits.dead_msec) +
           "; check the network between both hosts and whether the other side runs.");
  else if (writing_ && passed(write_began_, limits.write_msec))
    finish(begin + "the other side took no message for " + seconds(limits.write_msec) + ".");
  else if (!pinging_ && !closing_ && passed(last_ping_, limits.ping_msec))
    ping();
}

std::string Session::end_of(Error error) const
{
  const std::string& address = state_->address;
  if (error == websocket::error::closed || (!error && said_good_bye_)) {
    const std::string reason = printable(stream_.reason().reason.c_str());
    return address + " closed the connection" + (reason.empty() ? "." : ": " + reason + ".");
  }
  if (error == websocket::error::message_too_big || error == websocket::error::buffer_overflow)
    return "The connection with " + address + " was closed: it sent a message of more than " +
           std::to_string(state_->limits.message_bytes) + " bytes.";
  if (error.category() == websocket::make_error_code(websocket::error::closed).category())
    return "The connection with " + address + " was closed: what it sent is no WebSocket message (" +
           error.message() + ").";
  return "The connection with " + address + " was lost: " + error.message() + ".";
}

void Session::finish(const std::string& why)
{
  if (finished_)
    return;
  finished_ = true;
  timer_.cancel();
  abort();
  state_->finish(why);
}

} // namespace

std::shared_ptr<WebSocket_Session> WebSocket_Session::create(Network_Stream stream,
                                                             std::shared_ptr<WebSocket_State> state,
                                                             std::shared_ptr<void> place)
{
  return std::make_shared<Session>(std::move(stream), std::move(state), std::move(place));
}
} // namespace kestrel

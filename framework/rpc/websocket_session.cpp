#include "rpc/websocket_session.h"

#include <ace/Log_Msg.h>
#include <boost/asio/post.hpp>
#include <boost/beast/core/buffers_to_string.hpp>
#include <boost/beast/core/error.hpp>

#include <algorithm>
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
} // namespace

template <class Stream>
WebSocket_Session<Stream>::WebSocket_Session(Stream stream, std::shared_ptr<WebSocket_State> state,
                                             std::shared_ptr<void> place)
    : place_(std::move(place)), stream_(std::move(stream)), timer_(stream_.get_executor()),
      state_(std::move(state))
{
  const WebSocket_Limits& limits = state_->limits;
  const int shortest = std::min({limits.ping_msec, limits.dead_msec, limits.write_msec, limits.close_msec});
  tick_ = std::chrono::milliseconds(std::clamp(shortest / 4, 5, 1000));
  beast::get_lowest_layer(stream_).expires_never();
  stream_.read_message_max(limits.message_bytes);
  stream_.write_buffer_bytes(FRAME_BYTES);
  stream_.text(true);
  beast::error_code ignored; // only speed depends on it
  beast::get_lowest_layer(stream_).socket().set_option(asio::ip::tcp::no_delay(true), ignored);
}

/// Still open only when the network threads went away with everything that waited on them.
template <class Stream> WebSocket_Session<Stream>::~WebSocket_Session()
{
  state_->finish("The connection with " + state_->address + " was cut: this side is shutting down.");
}

template <class Stream> void WebSocket_Session<Stream>::set_timeout(int msec)
{
  websocket::stream_base::timeout limits;
  limits.handshake_timeout = std::chrono::milliseconds(msec);
  limits.idle_timeout = websocket::stream_base::none(); // see check_times()
  limits.keep_alive_pings = false;
  stream_.set_option(limits);
}

template <class Stream> void WebSocket_Session<Stream>::accept(Beast_Request request, Done done)
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
  const auto self = this->shared_from_this();
  stream_.async_accept(request_, [self, done = std::move(done)](Error error) { done(error); });
}

template <class Stream>
void WebSocket_Session<Stream>::shake_hands(const std::string& host, const std::string& target,
                                            const Headers& headers, int timeout_msec, Response& response,
                                            Done done)
{
  set_timeout(timeout_msec);
  stream_.set_option(websocket::stream_base::decorator([headers](websocket::request_type& request) {
    request.set(beast::http::field::sec_websocket_protocol, WEBSOCKET_RPC_PROTOCOL);
    for (const auto& header : headers)
      request.set(header.first, header.second);
  }));
  const auto self = this->shared_from_this();
  stream_.async_handshake(response, host, target,
                          [self, done = std::move(done)](Error error) { done(error); });
}

template <class Stream> void WebSocket_Session<Stream>::run()
{
  set_timeout(state_->limits.close_msec);
  stream_.control_callback(
      [this](websocket::frame_type, beast::string_view) { last_received_ = Monotonic::now(); });
  last_ping_ = last_received_ = Monotonic::now();
  state_->attach(this->weak_from_this());
  tick();
  attend();
}

template <class Stream> void WebSocket_Session<Stream>::abort()
{
  beast::get_lowest_layer(stream_).close();
}

template <class Stream> void WebSocket_Session<Stream>::wake()
{
  asio::post(stream_.get_executor(), [self = this->shared_from_this()] { self->attend(); });
}

template <class Stream> void WebSocket_Session<Stream>::attend()
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

template <class Stream> void WebSocket_Session<Stream>::write()
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
                      [self = this->shared_from_this()](Error error, std::size_t) { self->wrote(error); });
}

template <class Stream> void WebSocket_Session<Stream>::wrote(Error error)
{
  writing_ = false;
  state_->written();
  if (text_.capacity() > KEPT_BUFFER_BYTES)
    std::string().swap(text_);
  if (!error)
    write();
  else if (!reading_) // else the reading end learns it too, and maybe more of the reason
    finish(end_of(error));
}

template <class Stream> void WebSocket_Session<Stream>::say_good_bye()
{
  said_good_bye_ = true;
  stream_.async_close(close_code_,
                      [self = this->shared_from_this()](Error error) { self->finish(self->end_of(error)); });
}

template <class Stream> void WebSocket_Session<Stream>::read()
{
  stream_.async_read_some(received_, READ_BYTES, [self = this->shared_from_this()](Error error, std::size_t) {
    self->have_read(error);
  });
}

template <class Stream> void WebSocket_Session<Stream>::have_read(Error error)
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

template <class Stream> void WebSocket_Session<Stream>::deliver()
{
  if (!stream_.got_text()) {
    close_code_ = websocket::close_code::unknown_data;
    state_->close(state_->address + " sent a binary message; is it a peer of ours?");
  } else if (const std::shared_ptr<Message_Receiver> receiver = state_->receiver()) {
    try {
      receiver->message(beast::buffers_to_string(received_.data()));
    } catch (const std::exception& failure) {
      ACE_ERROR((LM_ERROR, "(%P|%t) WebSocket_Session: a message of %C cannot be taken: %C\n",
                 state_->address.c_str(), failure.what()));
      finish("The connection with " + state_->address + " was cut: " + failure.what() + ".");
    }
  }
  received_.consume(received_.size());
  if (received_.capacity() > KEPT_BUFFER_BYTES)
    received_.shrink_to_fit();
}

template <class Stream> void WebSocket_Session<Stream>::ping()
{
  pinging_ = true;
  last_ping_ = Monotonic::now();
  stream_.async_ping({}, [self = this->shared_from_this()](Error) { self->pinging_ = false; });
}

template <class Stream> void WebSocket_Session<Stream>::tick()
{
  timer_.expires_after(tick_);
  timer_.async_wait([self = this->shared_from_this()](Error error) {
    if (error || self->finished_)
      return;
    self->check_times();
    if (!self->finished_)
      self->tick();
  });
}

template <class Stream> void WebSocket_Session<Stream>::check_times()
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

template <class Stream> std::string WebSocket_Session<Stream>::end_of(Error error) const
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

template <class Stream> void WebSocket_Session<Stream>::finish(const std::string& why)
{
  if (finished_)
    return;
  finished_ = true;
  timer_.cancel();
  abort();
  state_->finish(why);
}

template class WebSocket_Session<Plain_Stream>;
template class WebSocket_Session<TLS_Stream>;
} // namespace kestrel

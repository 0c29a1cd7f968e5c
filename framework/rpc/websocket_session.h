#pragma once

// Only for .cpp files of framework/rpc: this is slow to compile.

#include "rpc/beast_stream.h"
#include "rpc/websocket_state.h"

#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/websocket/ssl.hpp>
#include <boost/beast/websocket/stream.hpp>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace kestrel
{
/// The network end of one WebSocket. Everything but wake() happens on the stream's strand. What it waits for
/// keeps it alive: the timer at least, until finish().
template <class Stream>
class WebSocket_Session : public WebSocket_Session_Base,
                          public std::enable_shared_from_this<WebSocket_Session<Stream>>
{
public:
  typedef boost::beast::error_code Error;
  typedef std::function<void(Error)> Done;
  typedef std::vector<std::pair<std::string, std::string>> Headers;
  typedef boost::beast::websocket::response_type Response;

  WebSocket_Session(Stream stream, std::shared_ptr<WebSocket_State> state, std::shared_ptr<void> place);
  ~WebSocket_Session() override;

  /// One of these first; run() after it was done without an error.
  void accept(Beast_Request request, Done done);
  /// `response` must live until `done`.
  void shake_hands(const std::string& host, const std::string& target, const Headers& headers,
                   int timeout_msec, Response& response, Done done);
  void run();
  /// Ends whatever is under way.
  void abort();
  void wake() override;

  const std::shared_ptr<WebSocket_State>& state() const { return state_; }

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
  boost::beast::websocket::stream<Stream> stream_;
  boost::asio::steady_timer timer_;
  boost::beast::flat_buffer received_;
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
  boost::beast::websocket::close_code close_code_ = boost::beast::websocket::close_code::normal;
};

extern template class WebSocket_Session<Plain_Stream>;
extern template class WebSocket_Session<TLS_Stream>;
} // namespace kestrel

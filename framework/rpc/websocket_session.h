#pragma once

// Only for .cpp files of framework/rpc: this is slow to compile.

#include "rpc/beast_stream.h"
#include "rpc/websocket_state.h"

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace kestrel
{
/// The network end of one WebSocket. Everything but wake() happens on the stream's strand. What it waits for
/// keeps it alive: the timer at least, until its end.
/// Secrets: a text is wiped when it was written, and what was received when it was delivered. Left over in
///          memory may be the last piece of a message in the buffers of the libraries below, until the next
///          one comes or the connection ends: 1.5 KiB of the WebSocket library, and what the TLS library
///          keeps of its last records.
class WebSocket_Session : public WebSocket_Session_Base
{
public:
  typedef boost::beast::error_code Error;
  typedef std::function<void(Error)> Done;
  typedef std::vector<std::pair<std::string, std::string>> Headers;
  typedef boost::beast::http::response<boost::beast::http::string_body> Response;

  /// `place` is freed after the stream.
  static std::shared_ptr<WebSocket_Session>
  create(Network_Stream stream, std::shared_ptr<WebSocket_State> state, std::shared_ptr<void> place);

  /// One of these first; run() after it was done without an error.
  virtual void accept(Beast_Request request, Done done) = 0;
  /// `response` must live until `done`.
  virtual void shake_hands(const std::string& host, const std::string& target, const Headers& headers,
                           int timeout_msec, Response& response, Done done) = 0;
  virtual void run() = 0;
  /// Ends whatever is under way.
  virtual void abort() = 0;
  virtual const std::shared_ptr<WebSocket_State>& state() const = 0;
};
} // namespace kestrel

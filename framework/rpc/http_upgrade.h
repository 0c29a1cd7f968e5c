#pragma once

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/http/message.hpp>
#include <boost/beast/http/string_body.hpp>
#include <boost/beast/ssl/ssl_stream.hpp>

#include <functional>
#include <memory>
#include <string>

namespace kestrel
{
/// A connection on its way from HTTP to a WebSocket: the request is read, nothing of the answer is written.
/// Whoever takes it moves the stream that is there out (one of the two) and accepts `request` on it.
/// Heavy to include: only for the sources that speak WebSocket.
/// Threads:   one at a time; the stream's executor is a strand of the server's threads.
/// Ownership: the counter's place of the connection is given back by the destructor, so it is kept as long as
///            the connection is open.
class HTTP_Upgrade
{
public:
  typedef boost::beast::tcp_stream Plain_Stream;
  typedef boost::beast::ssl_stream<boost::beast::tcp_stream> TLS_Stream;

  HTTP_Upgrade() = default;
  ~HTTP_Upgrade()
  {
    if (closed)
      closed();
  }
  HTTP_Upgrade(const HTTP_Upgrade&) = delete;
  HTTP_Upgrade& operator=(const HTTP_Upgrade&) = delete;

  std::unique_ptr<Plain_Stream> plain;
  std::unique_ptr<TLS_Stream> tls;
  boost::beast::http::request<boost::beast::http::string_body> request;
  boost::beast::flat_buffer
      unread; ///< what the client sent after the request; a WebSocket client sends nothing
  std::string address;
  std::shared_ptr<void> keep; ///< what the stream needs to live: the TLS context
  std::function<void()> closed;
};
} // namespace kestrel

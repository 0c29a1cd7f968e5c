#pragma once

// The types that the HTTP server and the WebSockets share. Only for .cpp files of framework/rpc: this is slow
// to compile.

#include "rpc/websocket_server.h"

#include <boost/asio/ssl/context.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/http/message.hpp>
#include <boost/beast/http/string_body.hpp>
#include <boost/beast/ssl/ssl_stream.hpp>

#include <memory>
#include <string>

namespace kestrel
{
typedef boost::beast::tcp_stream Plain_Stream;
typedef boost::beast::ssl_stream<boost::beast::tcp_stream> TLS_Stream;
typedef boost::beast::http::request<boost::beast::http::string_body> Beast_Request;

/// Exactly one of the two streams is there; its executor is a strand, and no operation on it is under way.
/// The request has been read whole, and nothing beyond it.
struct Upgraded_Connection::Parts {
  /// The connection's place among those that the HTTP server counts. Kept for as long as the stream and
  /// longer: it holds what the stream's executor runs on.
  std::shared_ptr<void> place;
  std::unique_ptr<Plain_Stream> plain;
  std::unique_ptr<TLS_Stream> tls;
  /// Kept for as long as the stream.
  std::shared_ptr<boost::asio::ssl::context> context;
  Beast_Request request;
  std::string address;
};
} // namespace kestrel

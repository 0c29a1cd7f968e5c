#pragma once

// The types that the HTTP server and the WebSockets share. Only for .cpp files of framework/rpc: this is slow
// to compile.

#include "rpc/network_stream.h"
#include "rpc/websocket_server.h"

#include <boost/beast/http/message.hpp>
#include <boost/beast/http/string_body.hpp>

#include <memory>
#include <string>

namespace kestrel
{
typedef boost::beast::http::request<boost::beast::http::string_body> Beast_Request;

/// The stream's executor is a strand, and no operation on it is under way. The request has been read whole, and nothing
/// beyond it.
struct Upgraded_Connection::Parts {
  /// The connection's place among those that the HTTP server counts. Kept for as long as the stream and
  /// longer: it holds what the stream's executor runs on.
  std::shared_ptr<void> place;
  std::unique_ptr<Network_Stream> stream; ///< null in what is only looked at
  /// Kept for as long as the stream.
  std::shared_ptr<boost::asio::ssl::context> context;
  Beast_Request request;
  std::string address;
};
} // namespace kestrel

#pragma once

// Only for the .cpp files of framework/rpc: this is slow to compile.

#include "rpc/beast_stream.h"
#include "rpc/http_server.h"
#include "rpc/http_workers.h"

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>

namespace kestrel
{
/// One connection as its server sees it.
/// Threads: any.
class HTTP_Connection
{
public:
  virtual ~HTTP_Connection() {}
  virtual void start() = 0;
  /// Ends it as soon as no request is being read or answered.
  virtual void close_when_idle() = 0;
  /// Ends it now.
  virtual void abort() = 0;
};

/// The place of one connection among those that are counted; given back by the destructor.
/// Threads: any.
class HTTP_Place
{
public:
  virtual ~HTTP_Place() {}
  /// From here on the server does not wait for the connection when it stops.
  virtual void handed_over() = 0;
};

/// What the connections of a server share. Outlives them.
struct HTTP_Shared {
  struct Upgrade {
    HTTP_Server::Upgrade_Gate gate;
    HTTP_Server::Upgrade_Handler handler;
  };

  HTTP_Server_Options options;
  HTTP_Server::Handler handler;
  HTTP_Server::Handler body_gate;
  std::map<std::string, Upgrade> upgrades;
  HTTP_Workers workers;
  std::atomic<bool> stopping{false}; ///< each connection ends with the reply that it owes
  std::atomic<bool> cut{false};      ///< requests that wait are not begun
  std::atomic<uint64_t> requests{0};
};

/// `place` is held for as long as the connection is open. With a null context it speaks plain HTTP.
std::shared_ptr<HTTP_Connection> make_http_connection(std::shared_ptr<HTTP_Shared> shared,
                                                      boost::asio::ip::tcp::socket socket,
                                                      std::shared_ptr<boost::asio::ssl::context> context,
                                                      std::string address, unsigned short port,
                                                      std::shared_ptr<HTTP_Place> place);
} // namespace kestrel

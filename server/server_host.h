#pragma once

#include "server/server_config.h"

#include <memory>
#include <string>

namespace kestrel
{
class Accounts;
class Heartbeats;
class Server_Database;
class Server_Metrics;

/// The backup server as one object: owns its configuration, database, resources and HTTP server, and starts
/// and stops them in the right order.
/// Threads:   one owner for start(), stop() and reload(); the accessors from any thread in between.
/// Errors:    false with `error` for the user; nothing runs then.
class Server_Host
{
public:
  Server_Host();
  ~Server_Host(); ///< stops
  Server_Host(const Server_Host&) = delete;
  Server_Host& operator=(const Server_Host&) = delete;

  /// Takes the lock of the state directory, opens the database and listens.
  /// `heartbeats` hears of the server's loops; null: nobody watches; else not owned, and must outlive stop().
  [[nodiscard]] bool start(const Server_Config& config, std::string& error, Heartbeats* heartbeats = nullptr);
  void stop(int grace_msec);
  /// Reads the certificate again.
  [[nodiscard]] bool reload(std::string& error);

  const Server_Config& config() const;
  Server_Database& database();
  REST_Router& router();
  HTTP_Server& http();
  Accounts& accounts();
  Server_Metrics& metrics();
  unsigned short port() const;

private:
  struct Parts;
  std::unique_ptr<Parts> parts_;
};
} // namespace kestrel

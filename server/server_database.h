#pragma once

#include "server/server_schema.h"

#include <soci/soci.h>

#include <condition_variable>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

namespace kestrel
{
/// A failure of the server's database. The text is complete for the log; clients are told only `busy`.
class Server_Database_Error : public std::runtime_error
{
public:
  Server_Database_Error(const std::string& text, bool busy) : std::runtime_error(text), busy_(busy) {}
  /// True: trying again later may help.
  bool busy() const { return busy_; }

private:
  bool busy_;
};

/// The database of the backup server (server.db): hosts, users, sessions, definitions, runs, selections,
/// audit. A few connections shared by all threads; other processes (the commands of the server's own machine)
/// may have it open at the same time. Threads:   any, after open(); one lease belongs to one thread. Units:
/// milliseconds. Errors:    open(): false with `error` for the user. Statements throw soci::soci_error,
/// lease() a
///            Server_Database_Error; translate() makes the one out of the other.
/// Crash:     an interrupted creation leaves "<path>.new", which the next one replaces; an interrupted
///            migration is rolled back by the database.
class Server_Database
{
public:
  struct Options {
    std::string path;
    bool create = false; ///< make the file when it is missing
    unsigned connections = 4;
    int busy_timeout_msec = 5000; ///< how long a statement waits for another process's write
    int lease_timeout_msec = 30000;
    std::vector<Server_Schema_Part> schema = server_schema();
  };

  Server_Database() = default;
  ~Server_Database();
  Server_Database(const Server_Database&) = delete;
  Server_Database& operator=(const Server_Database&) = delete;

  [[nodiscard]] bool open(const Options& options, std::string& error);
  /// When no lease is out any more.
  void close();
  const std::string& path() const { return options_.path; }

  /// One connection for the time of its life. Do not hold one while waiting for the network, and never take a
  /// second one in the same thread: all of them may be out. For a transaction put a Catalog_Transaction
  /// (catalog/catalog_database.h) on the session.
  class Lease
  {
  public:
    Lease(Server_Database& database, std::unique_ptr<soci::session> session)
        : database_(database), session_(std::move(session))
    {
    }
    ~Lease();
    Lease(const Lease&) = delete;
    Lease& operator=(const Lease&) = delete;
    soci::session& operator*() { return *session_; }
    soci::session* operator->() { return session_.get(); }

  private:
    Server_Database& database_;
    std::unique_ptr<soci::session> session_;
  };
  Lease lease();

  Server_Database_Error translate(const std::exception& error) const;

private:
  std::unique_ptr<soci::session> connect() const;
  void migrate(soci::session& session);
  void give_back(std::unique_ptr<soci::session> session);

  Options options_;
  std::mutex mutex_;
  std::condition_variable returned_;
  std::vector<std::unique_ptr<soci::session>> idle_;
};
} // namespace kestrel

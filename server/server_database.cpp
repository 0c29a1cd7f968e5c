#include "server/server_database.h"

#include "base/file_system.h"
#include "catalog/catalog_database.h"
#include "catalog/sqlite_file.h"

#include <ace/Log_Msg.h>
#include <soci/sqlite3/soci-sqlite3.h>

#include <cerrno>
#include <chrono>
#include <cstring>

namespace kestrel
{
namespace
{
Server_Database_Error failure(const std::string& text)
{
  return Server_Database_Error(text, false);
}

const char* const cure_of_damage = "The file is damaged: stop the server, move it away with its -wal and "
                                   "-shm files and put back a saved copy";

Sqlite_File sqlite_file(const Server_Database::Options& options)
{
  return {options.path, "server's database", options.busy_timeout_msec};
}

int part_version(soci::session& session, const std::string& part)
{
  int version = 0;
  session << "SELECT version FROM schema_part WHERE name = :n", soci::use(part, "n"), soci::into(version);
  return session.got_data() ? version : 0;
}

bool has_parts(soci::session& session)
{
  int tables = 0;
  session << "SELECT count(*) FROM sqlite_master WHERE type = 'table' AND name = 'schema_part'",
      soci::into(tables);
  return tables > 0;
}
} // namespace

Server_Database_Error Server_Database::translate(const std::exception& error) const
{
  if (const auto* known = dynamic_cast<const Server_Database_Error*>(&error))
    return *known;
  if (dynamic_cast<const Sqlite_File_Error*>(&error) != nullptr)
    return failure(error.what());
  const std::string start = "Server database " + options_.path + ": ";
  if (const auto* sqlite = dynamic_cast<const soci::sqlite3_soci_error*>(&error))
    return Server_Database_Error(start + sqlite->get_error_message() + ". " +
                                     sqlite_cure(sqlite->result(), cure_of_damage),
                                 is_sqlite_busy(sqlite->result()));
  if (const auto* other = dynamic_cast<const soci::soci_error*>(&error))
    return failure(start + other->get_error_message());
  return failure(start + error.what());
}

Server_Database::~Server_Database()
{
  close();
}

void Server_Database::close()
{
  std::lock_guard<std::mutex> guard(mutex_);
  idle_.clear();
}

bool Server_Database::open(const Options& options, std::string& error)
{
  options_ = options;
  try {
    struct stat status;
    if (file_system().stat(options.path.c_str(), &status) != 0) {
      if (errno != ENOENT || !options.create)
        throw failure("Cannot open the server's database " + options.path + ": " + ::strerror(errno) +
                      (errno == ENOENT ? ". 'kestrel server init' makes a new server" : ""));
      make_sqlite_file(sqlite_file(options), 0600, server_application_id, [](soci::session& session) {
        session << "CREATE TABLE schema_part (name TEXT NOT NULL PRIMARY KEY, version INTEGER NOT NULL)";
      });
    } else if (status.st_size == 0)
      throw failure("The server's database " + options.path + " is empty (0 bytes). " + cure_of_damage);
    std::vector<std::unique_ptr<soci::session>> sessions;
    sessions.push_back(connect());
    migrate(*sessions.front());
    while (sessions.size() < options.connections)
      sessions.push_back(connect());
    std::lock_guard<std::mutex> guard(mutex_);
    idle_ = std::move(sessions);
    return true;
  } catch (const std::exception& exception) {
    error = translate(exception).what();
    return false;
  }
}

std::unique_ptr<soci::session> Server_Database::connect() const
{
  std::unique_ptr<soci::session> session(new soci::session);
  connect_sqlite(*session, sqlite_file(options_));
  return session;
}

void Server_Database::migrate(soci::session& session)
{
  int application_id = 0;
  session << "PRAGMA application_id", soci::into(application_id);
  if (application_id != server_application_id || !has_parts(session))
    throw failure(options_.path + " is a database, but not one of this server. Move it away and put back the "
                                  "server's");
  Catalog_Transaction transaction(session, Catalog_Transaction::Kind::write);
  for (const Server_Schema_Part& part : options_.schema) {
    const int newest = static_cast<int>(part.steps.size());
    const int version = part_version(session, part.name);
    if (version > newest)
      throw failure("The server's database " + options_.path + " was written by a newer release (" +
                    part.name + " " + std::to_string(version) + ", this program knows up to " +
                    std::to_string(newest) + "). Update this program");
    if (version == newest)
      continue;
    for (int step = version; step < newest; ++step)
      for (const std::string& statement : part.steps[static_cast<size_t>(step)])
        session << statement;
    session << "INSERT OR REPLACE INTO schema_part (name, version) VALUES (:n, :v)",
        soci::use(part.name, "n"), soci::use(newest, "v");
  }
  transaction.commit();
}

Server_Database::Lease Server_Database::lease()
{
  std::unique_lock<std::mutex> lock(mutex_);
  if (!returned_.wait_for(lock, std::chrono::milliseconds(options_.lease_timeout_msec),
                          [&] { return !idle_.empty(); }))
    throw Server_Database_Error("Server database " + options_.path + ": all connections are in use", true);
  std::unique_ptr<soci::session> session = std::move(idle_.back());
  idle_.pop_back();
  return Lease(*this, std::move(session));
}

Server_Database::Lease::~Lease()
{
  if (session_)
    database_.give_back(std::move(session_));
}

void Server_Database::give_back(std::unique_ptr<soci::session> session)
{
  std::lock_guard<std::mutex> guard(mutex_);
  idle_.push_back(std::move(session));
  returned_.notify_one();
}
} // namespace kestrel

#include "server/server_database.h"

#include "base/file_system.h"
#include "base/ignore_result.h"
#include "base/scope_guard.h"
#include "catalog/catalog_database.h"

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

bool is_busy(int code)
{
  const int primary = code & 0xff;
  return primary == SQLITE_BUSY || primary == SQLITE_LOCKED || primary == SQLITE_PROTOCOL;
}

const char* cure_of(int code)
{
  switch (code & 0xff) {
  case SQLITE_CORRUPT:
  case SQLITE_NOTADB:
    return "The file is damaged: stop the server, move it away with its -wal and -shm files and put back a "
           "saved copy";
  case SQLITE_FULL:
    return "The disk is full: free some space";
  case SQLITE_READONLY:
    return "The file or its file system is read-only: make it writable for this user";
  case SQLITE_CANTOPEN:
  case SQLITE_PERM:
  case SQLITE_AUTH:
    return "Check that its directory exists and that this user may read and write it";
  case SQLITE_IOERR:
    return "Check the disk and the system log";
  case SQLITE_BUSY:
  case SQLITE_LOCKED:
  case SQLITE_PROTOCOL:
    return "Another process is writing to it: repeat later";
  case SQLITE_CONSTRAINT:
    return "The record contradicts one that is already there";
  default:
    return "This is an error of the program";
  }
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
  const std::string start = "Server database " + options_.path + ": ";
  if (const auto* sqlite = dynamic_cast<const soci::sqlite3_soci_error*>(&error))
    return Server_Database_Error(start + sqlite->get_error_message() + ". " + cure_of(sqlite->result()),
                                 is_busy(sqlite->result()));
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
      create_file();
    } else if (status.st_size == 0)
      throw failure("The server's database " + options.path + " is empty (0 bytes). " +
                    cure_of(SQLITE_CORRUPT));
    std::vector<std::unique_ptr<soci::session>> sessions;
    sessions.push_back(connect(options.path));
    migrate(*sessions.front());
    while (sessions.size() < options.connections)
      sessions.push_back(connect(options.path));
    std::lock_guard<std::mutex> guard(mutex_);
    idle_ = std::move(sessions);
    return true;
  } catch (const std::exception& exception) {
    error = translate(exception).what();
    return false;
  }
}

std::unique_ptr<soci::session> Server_Database::connect(const std::string& path) const
{
  if (path.find('"') != std::string::npos)
    throw failure("The path of the server's database holds a quotation mark: " + path);
  std::unique_ptr<soci::session> session(new soci::session);
  session->open(soci::sqlite3, "db=\"" + path + "\"");
  *session << "PRAGMA busy_timeout = " << options_.busy_timeout_msec;
  *session << "PRAGMA foreign_keys = ON";
  // A commit must survive a power failure: in WAL mode only FULL syncs each one.
  *session << "PRAGMA synchronous = FULL";
  return session;
}

void Server_Database::create_file()
{
  File_System& files = file_system();
  const std::string fresh = options_.path + ".new";
  for (const char* suffix : {"", "-wal", "-shm", "-journal"})
    if (files.unlink((fresh + suffix).c_str()) != 0 && errno != ENOENT)
      throw failure("Cannot remove the leftover " + fresh + suffix + ": " + ::strerror(errno));
  const int fd = files.open(fresh.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (fd < 0)
    throw failure("Cannot make the server's database " + fresh + ": " + ::strerror(errno));
  Scope_Guard remove_fresh([&] {
    ignore_result(files.unlink(fresh.c_str()), "the next creation removes a leftover before it begins");
  });
  ignore_result(files.close(fd), "nothing was written through it");
  {
    const std::unique_ptr<soci::session> session = connect(fresh);
    *session << "PRAGMA application_id = " << server_application_id;
    *session << "PRAGMA journal_mode = WAL";
    Catalog_Transaction transaction(*session, Catalog_Transaction::Kind::write);
    *session << "CREATE TABLE schema_part (name TEXT NOT NULL PRIMARY KEY, version INTEGER NOT NULL)";
    transaction.commit();
  } // the last connection moves the log into the file and syncs it
  if (files.rename(fresh.c_str(), options_.path.c_str()) != 0)
    throw failure("Cannot give the new database its name " + options_.path + ": " + ::strerror(errno));
  remove_fresh.cancel();
  const size_t slash = options_.path.rfind('/');
  const std::string directory = slash == std::string::npos ? "." : options_.path.substr(0, slash + 1);
  if (files.fsync_directory(directory.c_str()) != 0)
    throw failure("Cannot make durable the directory " + directory + ": " + ::strerror(errno));
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

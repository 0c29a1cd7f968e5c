#include "catalog/sqlite_file.h"

#include "base/file_system.h"
#include "base/ignore_result.h"
#include "base/scope_guard.h"
#include "catalog/catalog_database.h"

#include <soci/sqlite3/soci-sqlite3.h>

#include <cerrno>
#include <cstring>
#include <fcntl.h>

namespace kestrel
{
namespace
{
Sqlite_File_Error file_error(const std::string& what)
{
  return Sqlite_File_Error(what + ": " + ::strerror(errno));
}

// SQLite would make its file itself, but readable for more users.
void make_empty_file(const std::string& fresh, mode_t mode, const std::string& noun)
{
  File_System& files = file_system();
  for (const char* suffix : {"", "-wal", "-shm", "-journal"})
    if (files.unlink((fresh + suffix).c_str()) != 0 && errno != ENOENT)
      throw file_error("Cannot remove the leftover " + fresh + suffix);
  const int fd = files.open(fresh.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, mode);
  if (fd < 0)
    throw file_error("Cannot make the " + noun + " " + fresh);
  ignore_result(files.close(fd), "nothing was written through it");
}

void fill_file(const Sqlite_File& fresh, int application_id, const std::function<void(soci::session&)>& fill)
{
  soci::session session;
  connect_sqlite(session, fresh);
  session << "PRAGMA application_id = " << application_id;
  session << "PRAGMA journal_mode = WAL";
  Catalog_Transaction transaction(session, Catalog_Transaction::Kind::write);
  fill(session);
  transaction.commit();
} // the last connection moves the log into the file and syncs it
} // namespace

bool is_sqlite_busy(int code)
{
  const int primary = code & 0xff;
  return primary == SQLITE_BUSY || primary == SQLITE_LOCKED || primary == SQLITE_PROTOCOL;
}

const char* sqlite_cure(int code, const char* cure_of_damage)
{
  switch (code & 0xff) {
  case SQLITE_CORRUPT:
  case SQLITE_NOTADB:
    return cure_of_damage;
  case SQLITE_FULL:
    return "The disk is full: free some space and repeat";
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
  case SQLITE_NOMEM:
    return "There is not enough memory";
  default:
    return "This is an error of the program";
  }
}

void connect_sqlite(soci::session& session, const Sqlite_File& file)
{
  if (file.path.find('"') != std::string::npos)
    throw Sqlite_File_Error("The path of the " + file.noun + " holds a quotation mark: " + file.path);
  session.open(soci::sqlite3, "db=\"" + file.path + "\"" + (file.read_only ? " readonly=true" : ""));
  session << "PRAGMA busy_timeout = " << file.busy_timeout_msec;
  session << "PRAGMA foreign_keys = ON";
  // In WAL mode only FULL syncs each commit.
  session << "PRAGMA synchronous = FULL";
}

void make_sqlite_file(const Sqlite_File& file, mode_t mode, int application_id,
                      const std::function<void(soci::session&)>& fill)
{
  File_System& files = file_system();
  Sqlite_File fresh = file;
  fresh.path += ".new";
  make_empty_file(fresh.path, mode, file.noun);
  Scope_Guard remove_fresh([&] {
    ignore_result(files.unlink(fresh.path.c_str()), "the next creation removes a leftover before it begins");
  });
  fill_file(fresh, application_id, fill);
  struct stat status;
  if (files.stat((fresh.path + "-wal").c_str(), &status) == 0)
    throw Sqlite_File_Error("The new " + file.noun + " " + fresh.path + " could not be written completely");
  if (files.rename(fresh.path.c_str(), file.path.c_str()) != 0)
    throw file_error("Cannot give the new " + file.noun + " its name " + file.path);
  remove_fresh.cancel();
  const size_t slash = file.path.rfind('/');
  const std::string directory = slash == std::string::npos ? "." : file.path.substr(0, slash + 1);
  if (files.fsync_directory(directory.c_str()) != 0)
    throw file_error("Cannot make durable the directory " + directory);
}
} // namespace kestrel

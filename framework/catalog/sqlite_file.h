#pragma once

#include <soci/soci.h>

#include <functional>
#include <stdexcept>
#include <string>

namespace kestrel
{
/// A SQLite file of this product: the catalog, the server's database, the agent's.
struct Sqlite_File {
  std::string path;
  std::string noun;             ///< for messages, without article: "catalog"
  int busy_timeout_msec = 2000; ///< how long a statement waits for another process's write, in real time
  bool read_only = false;       ///< it must be there, and no statement can change it
};

/// What went wrong with the file itself, not with a statement. The text is complete for the user.
class Sqlite_File_Error : public std::runtime_error
{
public:
  using std::runtime_error::runtime_error;
};

/// True when another process is in the way: the same may succeed later. `code` is a result code of SQLite, a
/// plain or an extended one.
bool is_sqlite_busy(int code);

/// What the user does about `code`, a sentence without its full stop. What to do about a damaged file depends
/// on what the file keeps: that sentence is the caller's.
const char* sqlite_cure(int code, const char* cure_of_damage);

/// Opens `session` on the file, which SQLite makes when it is missing, unless it is to be read only. Foreign
/// keys are checked, and a commit of a file with a write-ahead log survives a power failure. Errors: throws
/// Sqlite_File_Error and what SOCI throws; the session is not open or may be closed.
void connect_sqlite(soci::session& session, const Sqlite_File& file);

/// Makes the file with a write-ahead log, its mode and the mark of what it is; `fill` makes the tables in one
/// transaction. The caller sees to it that nobody else makes it meanwhile.
/// Errors: throws Sqlite_File_Error and what SOCI and `fill` throw; `file.path` is not there then, unless
///         only making the rename durable failed.
/// Crash:  leaves "<path>.new", which the next call replaces, or the complete file.
void make_sqlite_file(const Sqlite_File& file, mode_t mode, int application_id,
                      const std::function<void(soci::session&)>& fill);
} // namespace kestrel

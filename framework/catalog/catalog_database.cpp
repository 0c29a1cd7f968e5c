#include "catalog/catalog_database.h"

#include "base/file_lock.h"
#include "base/file_system.h"
#include "catalog/sqlite_file.h"

#include <ace/Log_Msg.h>
#include <soci/sqlite3/soci-sqlite3.h>

#include <cerrno>
#include <cstring>
#include <new>

namespace kestrel
{
namespace
{
const char* const cure_of_damage = "The file is damaged: move it away with its -wal and -shm files and put "
                                   "back a copy of it; without a copy a "
                                   "new catalog is made, which does not know the earlier backups";

Sqlite_File sqlite_file(const Catalog_Place& place)
{
  return {place.path, "catalog", place.busy_timeout_msec};
}

Catalog_Error file_error(const std::string& what, const std::string& path)
{
  return Catalog_Error(Catalog_Status::broken, what + " " + path + ": " + ::strerror(errno));
}

Catalog_Error unreachable(const Catalog_Place& place, const std::string& cause)
{
  return Catalog_Error(Catalog_Status::busy, "Catalog " + place.name() + ": " + cause +
                                                 " Check that the server runs and lets this user in");
}

/// Whose fault a result of SQLite is.
Catalog_Status status_of(int code)
{
  if (is_sqlite_busy(code))
    return Catalog_Status::busy;
  switch (code & 0xff) {
  case SQLITE_CONSTRAINT:
  case SQLITE_TOOBIG:
  case SQLITE_MISMATCH:
    return Catalog_Status::failed;
  default:
    return Catalog_Status::broken;
  }
}

bool on_server(soci::session& session)
{
  return session.get_backend_name() == "postgresql";
}

/// 0 when the table is missing, so that a database of another origin shows as such.
int schema_version(soci::session& session)
{
  int tables = 0;
  session << (on_server(session) ? "SELECT count(*) FROM information_schema.tables WHERE table_name = "
                                   "'schema_version' AND table_schema = current_schema()"
                                 : "SELECT count(*) FROM sqlite_master WHERE type = 'table' AND name = "
                                   "'schema_version'"),
      soci::into(tables);
  if (tables == 0)
    return 0;
  int version = 0;
  soci::indicator indicator = soci::i_ok;
  session << "SELECT max(version) FROM schema_version", soci::into(version, indicator);
  return indicator == soci::i_ok ? version : 0;
}

std::string statement_text(soci::session& session, const std::string& text)
{
  const std::string placeholder = "{id}";
  const size_t at = text.find(placeholder);
  if (at == std::string::npos)
    return text;
  const char* const id_type =
      on_server(session) ? "BIGSERIAL PRIMARY KEY" : "INTEGER PRIMARY KEY AUTOINCREMENT";
  return std::string(text).replace(at, placeholder.size(), id_type);
}

// A server gathers its own statistics.
void write_index_statistics(soci::session& session)
{
  session << "ANALYZE sqlite_master"; // makes the table of statistics
  session << "DELETE FROM sqlite_stat1";
  for (const Index_Statistics& index : catalog_index_statistics()) {
    const std::string table = index.table, name = index.index, rows = index.rows;
    session << "INSERT INTO sqlite_stat1 (tbl, idx, stat) VALUES (:t, :i, :s)", soci::use(table, "t"),
        soci::use(name, "i"), soci::use(rows, "s");
  }
}

void run_migrations(soci::session& session, const Catalog_Migrations& migrations, int from_version)
{
  for (size_t version = static_cast<size_t>(from_version); version < migrations.size(); ++version)
    for (const std::string& statement : migrations[version])
      session << statement_text(session, statement);
  session << "UPDATE schema_version SET version = " << migrations.size();
  if (!on_server(session))
    write_index_statistics(session);
}

void make_schema(soci::session& session, const Catalog_Migrations& migrations)
{
  session << "CREATE TABLE schema_version (version INTEGER NOT NULL)";
  session << "INSERT INTO schema_version (version) VALUES (0)";
  run_migrations(session, migrations, 0);
}
} // namespace

Catalog_Error Catalog_Database::translate(const Catalog_Place& place, const std::exception& error)
{
  if (const auto* known = dynamic_cast<const Catalog_Error*>(&error))
    return *known;
  if (dynamic_cast<const Sqlite_File_Error*>(&error) != nullptr)
    return Catalog_Error(Catalog_Status::broken, error.what());
  const std::string start = "Catalog " + place.name() + ": ";
  if (const auto* sqlite = dynamic_cast<const soci::sqlite3_soci_error*>(&error)) {
    const int code = sqlite->result();
    return Catalog_Error(status_of(code),
                         start + sqlite->get_error_message() + ". " + sqlite_cure(code, cure_of_damage));
  }
  if (const auto* other = dynamic_cast<const soci::soci_error*>(&error)) {
    if (other->get_error_category() == soci::soci_error::connection_error)
      return unreachable(place, other->get_error_message());
    const bool contradicts = other->get_error_category() == soci::soci_error::constraint_violation;
    return Catalog_Error(contradicts ? Catalog_Status::failed : Catalog_Status::broken,
                         start + other->get_error_message());
  }
  const bool no_memory = dynamic_cast<const std::bad_alloc*>(&error) != nullptr;
  return Catalog_Error(no_memory ? Catalog_Status::broken : Catalog_Status::failed, start + error.what());
}

Catalog_Database::Catalog_Database(const Catalog_Place& place)
{
  if (!place.problem.empty())
    throw Catalog_Error(Catalog_Status::broken, place.problem);
  try {
    if (place.server.empty())
      open_file(place);
    else
      open_server(place);
    migrate(place);
  } catch (const std::exception& error) {
    throw translate(place, error);
  }
}

void Catalog_Database::open_server(const Catalog_Place& place)
{
  // Loaded by name, so that hosts without a server need no client library. The limits come first: the place
  // may set its own.
  const std::string connection =
      "connect_timeout=10 tcp_user_timeout=30000 application_name=kestrel " + place.server;
  try {
    session_.open("postgresql", connection);
  } catch (const soci::soci_error& error) {
    const std::string text = error.get_error_message();
    if (text.find("shared library") != std::string::npos)
      throw Catalog_Error(Catalog_Status::broken, "Catalog " + place.name() + ": " + text +
                                                      ". Install SOCI's back end for PostgreSQL");
    throw unreachable(place, text);
  }
  session_ << "SET lock_timeout = '60s'";
  if (schema_version(session_) != 0)
    return;
  Catalog_Transaction transaction(session_, Catalog_Transaction::Kind::write);
  if (schema_version(session_) == 0) {
    make_schema(session_, *place.migrations);
    created_ = true;
  }
  transaction.commit();
}

void Catalog_Database::open_file(const Catalog_Place& place)
{
  struct stat status;
  if (file_system().stat(place.path.c_str(), &status) != 0) {
    if (errno != ENOENT)
      throw file_error("Cannot look at the catalog", place.path);
    create_file(place);
  } else if (status.st_size == 0)
    throw Catalog_Error(Catalog_Status::broken,
                        "Catalog " + place.path + " is empty (0 bytes). " + cure_of_damage);
  connect_sqlite(session_, sqlite_file(place));
  int application_id = 0;
  session_ << "PRAGMA application_id", soci::into(application_id);
  if (schema_version(session_) <= 0 || application_id != catalog_application_id)
    throw Catalog_Error(Catalog_Status::broken,
                        "Catalog " + place.path +
                            " is a database, but not a catalog of this program. Move it away "
                            "and put back the catalog");
}

void Catalog_Database::create_file(const Catalog_Place& place)
{
  File_Lock lock;
  if (!lock.lock(place.path + ".lock"))
    throw file_error("Cannot lock the catalog with", place.path + ".lock");
  File_System& files = file_system();
  struct stat status;
  if (files.stat(place.path.c_str(), &status) == 0)
    return;                                                    // another process was first
  if (files.stat((place.path + "-wal").c_str(), &status) == 0) // it would be applied to the new file
    throw Catalog_Error(Catalog_Status::broken,
                        "The catalog " + place.path + " is missing, but its log " + place.path +
                            "-wal is there: put the catalog back beside it, or move the log "
                            "away to begin a new catalog");
  make_sqlite_file(sqlite_file(place), 0640, catalog_application_id,
                   [&](soci::session& session) { make_schema(session, *place.migrations); });
  created_ = true;
}

void Catalog_Database::migrate(const Catalog_Place& place)
{
  const int newest = static_cast<int>(place.migrations->size());
  int version = schema_version(session_);
  if (version > newest)
    throw Catalog_Error(Catalog_Status::broken, "Catalog " + place.name() +
                                                    " was written by a newer release (schema " +
                                                    std::to_string(version) + ", this program knows up to " +
                                                    std::to_string(newest) + "). Update this program");
  if (version == newest)
    return;
  Catalog_Transaction transaction(session_, Catalog_Transaction::Kind::write);
  version = schema_version(session_); // another process may have been first
  if (version < newest)
    run_migrations(session_, *place.migrations, version);
  transaction.commit();
  ACE_DEBUG((LM_NOTICE, "(%P|%t) Catalog %s was brought from schema %d to %d\n", place.name().c_str(),
             version, newest));
}

Catalog_Transaction::Catalog_Transaction(soci::session& session, Kind kind) : session_(session)
{
  if (!on_server(session_)) {
    session_ << (kind == Kind::write ? "BEGIN IMMEDIATE" : "BEGIN");
    return;
  }
  session_ << (kind == Kind::write ? "BEGIN" : "BEGIN ISOLATION LEVEL REPEATABLE READ READ ONLY");
  if (kind == Kind::write)
    lock_for_writing();
}

/// SQLite locks at the begin of a write transaction; a server needs a lock of our own.
void Catalog_Transaction::lock_for_writing()
{
  try {
    std::string nothing;
    session_ << "SELECT CAST(pg_advisory_xact_lock(" << catalog_application_id << ") AS TEXT)",
        soci::into(nothing);
  } catch (const std::exception&) {
    roll_back();
    throw;
  }
}

Catalog_Transaction::~Catalog_Transaction()
{
  if (open_)
    roll_back();
}

void Catalog_Transaction::roll_back()
{
  try {
    session_ << "ROLLBACK";
  } catch (const std::exception&) {
    // The database rolls back by itself when the connection ends.
  }
}

void Catalog_Transaction::commit()
{
  session_ << "COMMIT";
  open_ = false;
}
} // namespace kestrel

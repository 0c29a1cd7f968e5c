#pragma once

#include "catalog/catalog_back_end.h"
#include "catalog/catalog_schema.h"

#include <soci/soci.h>

#include <stdexcept>
#include <string>

namespace kestrel
{
/// Where a SQL catalog lives and how it is opened.
struct Catalog_Place {
  std::string path; ///< of the SQLite file, when there is no server
  /// Of a PostgreSQL database, as libpq reads it ("host=... dbname=..."); empty: the catalog is the file.
  /// Shown in messages, so it must not hold a password.
  std::string server;
  std::string problem; ///< not empty: the place could not be found out, and opening it fails with this text
  /// How long one attempt waits for another process's write, in real time; the caller's retries come on top.
  int busy_timeout_msec = 2000;
  const Catalog_Migrations* migrations = &catalog_migrations();

  /// For messages.
  std::string name() const { return server.empty() ? path : "on the server (" + server + ")"; }
};

/// A failure with a text that is complete for the user, except for what was being done.
class Catalog_Error : public std::runtime_error
{
public:
  Catalog_Error(Catalog_Status status, const std::string& text) : std::runtime_error(text), status_(status) {}
  Catalog_Status status() const { return status_; }

private:
  Catalog_Status status_;
};

/// An open connection to the catalog with the present schema. The first open of a missing file builds a new
/// catalog under a temporary name and renames it, so an empty file at the catalog's path is damage and never
/// a new catalog; in a server's database the tables appear in one transaction. Older schemas are brought up
/// to date in one transaction.
/// Threads: one owner.
/// Errors:  the constructor throws Catalog_Error; statements throw soci::soci_error, which translate() turns
///          into a Catalog_Error with the cure.
/// Crash:   an interrupted creation leaves "<path>.new", which the next one replaces; an interrupted
///          migration is rolled back by the database.
class Catalog_Database
{
public:
  explicit Catalog_Database(const Catalog_Place& place);

  soci::session& session() { return session_; }
  /// True when the open had to build the catalog.
  bool created() const { return created_; }

  static Catalog_Error translate(const Catalog_Place& place, const std::exception& error);

private:
  void open_file(const Catalog_Place& place);
  void open_server(const Catalog_Place& place);
  void create_file(const Catalog_Place& place);
  void migrate(const Catalog_Place& place);

  soci::session session_;
  bool created_ = false;
};

/// BEGIN on construction, ROLLBACK on destruction unless commit() was reached.
class Catalog_Transaction
{
public:
  enum class Kind {
    read, ///< one consistent view for several statements
    write ///< takes the write lock at once, so that two writers wait for each other instead of failing
          ///< half-way
  };
  Catalog_Transaction(soci::session& session, Kind kind);
  ~Catalog_Transaction();
  Catalog_Transaction(const Catalog_Transaction&) = delete;
  Catalog_Transaction& operator=(const Catalog_Transaction&) = delete;
  void commit();

private:
  void lock_for_writing();
  void roll_back();

  soci::session& session_;
  bool open_ = true;
};
} // namespace kestrel

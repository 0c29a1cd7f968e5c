#include "agent/job_database.h"

#include "base/descriptor.h"
#include "catalog/catalog_database.h"
#include "catalog/sqlite_file.h"

#include <soci/soci.h>
#include <soci/sqlite3/soci-sqlite3.h>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <mutex>
#include <stdexcept>

namespace kestrel
{
namespace
{
constexpr int busy_timeout_msec = 2000;

const char* const cure_of_damage =
    "The file is damaged: move it away with its -wal and -shm files; definitions of "
    "the server come back by themselves";

std::string describe(const std::string& path, const std::exception& problem)
{
  if (dynamic_cast<const Sqlite_File_Error*>(&problem) != nullptr)
    return problem.what();
  std::string text = "the agent's database " + path + ": " + problem.what();
  if (const auto* failure = dynamic_cast<const soci::sqlite3_soci_error*>(&problem))
    text += std::string(". ") + sqlite_cure(failure->result(), cure_of_damage);
  return text;
}

/// Not newer than `newest`.
int version_of(soci::session& session, int newest)
{
  int version = 0;
  session << "PRAGMA user_version", soci::into(version);
  if (version > newest)
    throw std::runtime_error("was written by a newer release (schema " + std::to_string(version) +
                             ", this program knows up to " + std::to_string(newest) +
                             "); update this program");
  return version;
}

void require_version(soci::session& session, int newest)
{
  const int version = version_of(session, newest);
  if (version == 0)
    throw std::runtime_error("is empty: the agent's first start has not come so far; start the agent");
  if (version < newest)
    throw std::runtime_error("was written by an older release (schema " + std::to_string(version) +
                             "); start the agent once, it brings the file up to date");
}

void migrate(soci::session& session, const Job_Database::Migrations& migrations)
{
  const int newest = static_cast<int>(migrations.size());
  int version = version_of(session, newest);
  if (version == newest)
    return;
  Catalog_Transaction transaction(session, Catalog_Transaction::Kind::write);
  for (; version < newest; ++version)
    for (const std::string& statement : migrations[static_cast<size_t>(version)])
      session << statement;
  session << "PRAGMA user_version = " << newest;
  transaction.commit();
}
} // namespace

struct Job_Database::State {
  std::string path;
  mutable std::mutex mutex;
  mutable soci::session session;

  void close()
  {
    try {
      session.close();
    } catch (const std::exception&) {
      // It was not open.
    }
  }
};

Job_Database::Job_Database() : state_(new State) {}

Job_Database::~Job_Database() = default;

const Job_Database::Migrations& Job_Database::schema()
{
  static const Migrations migrations = {
      {
          "CREATE TABLE definition (id TEXT PRIMARY KEY, revision INTEGER NOT NULL, "
          "enabled INTEGER NOT NULL, origin TEXT NOT NULL, document TEXT NOT NULL, since INTEGER NOT NULL)",
          "CREATE TABLE run (number INTEGER PRIMARY KEY AUTOINCREMENT, run_id TEXT NOT NULL UNIQUE, "
          "definition_id TEXT NOT NULL, revision INTEGER NOT NULL, name TEXT NOT NULL, cause TEXT NOT NULL, "
          "state INTEGER NOT NULL, queued_at INTEGER NOT NULL, started_at INTEGER NOT NULL, "
          "ended_at INTEGER NOT NULL, reason TEXT NOT NULL, log_path TEXT NOT NULL, alerts TEXT NOT NULL, "
          "done_bytes INTEGER NOT NULL, instance TEXT NOT NULL, sent INTEGER NOT NULL)",
          "CREATE INDEX run_definition ON run (definition_id, number)",
          "CREATE INDEX run_unsent ON run (number) WHERE sent = 0",
          "CREATE INDEX run_open ON run (number) WHERE ended_at = 0",
          "CREATE INDEX run_ended ON run (ended_at)",
          "CREATE TABLE setting (name TEXT PRIMARY KEY, value TEXT NOT NULL)",
      },
      {
          "ALTER TABLE run ADD COLUMN refusal TEXT NOT NULL DEFAULT ''",
      },
      {
          "ALTER TABLE run ADD COLUMN former_start INTEGER NOT NULL DEFAULT -1",
          // What modules have heard last of each definition. Those of a former release count as heard of.
          "CREATE TABLE told (id TEXT PRIMARY KEY, document TEXT NOT NULL, enabled INTEGER NOT NULL)",
          "INSERT INTO told (id, document, enabled) SELECT id, document, enabled FROM definition",
      },
  };
  return migrations;
}

bool Job_Database::open(const std::string& path, std::string& error, const Migrations& migrations)
{
  const std::lock_guard<std::mutex> guard(state_->mutex);
  state_->path = path;
  {
    // Definitions hold scripts: for this user only. The database gives its other files the same mode.
    const Auto_Fd file(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    if (file.get() < 0) {
      error = "cannot open the agent's database " + path + ": " + std::strerror(errno);
      return false;
    }
  }
  try {
    soci::session& session = state_->session;
    connect_sqlite(session, {path, "agent's database", busy_timeout_msec});
    session << "PRAGMA journal_mode = WAL";
    migrate(session, migrations);
    return true;
  } catch (const std::exception& problem) {
    error = describe(path, problem);
  }
  state_->close();
  return false;
}

bool Job_Database::open_to_read(const std::string& path, std::string& error)
{
  const std::lock_guard<std::mutex> guard(state_->mutex);
  state_->path = path;
  {
    const Auto_Fd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (file.get() < 0) {
      error = errno == ENOENT ? "no agent has run on this host yet: there is no " + path
                              : "cannot read the agent's database " + path + ": " + std::strerror(errno);
      return false;
    }
  }
  try {
    Sqlite_File file = {path, "agent's database", busy_timeout_msec};
    file.read_only = true;
    connect_sqlite(state_->session, file);
    require_version(state_->session, static_cast<int>(schema().size()));
    return true;
  } catch (const std::exception& problem) {
    error = describe(path, problem);
  }
  state_->close();
  return false;
}

void Job_Database::close()
{
  const std::lock_guard<std::mutex> guard(state_->mutex);
  state_->close();
}

bool Job_Database::read(const Work& work, std::string& error) const
{
  const std::lock_guard<std::mutex> guard(state_->mutex);
  try {
    work(state_->session);
    return true;
  } catch (const std::exception& problem) {
    error = describe(state_->path, problem);
    return false;
  }
}

bool Job_Database::write(const Work& work, std::string& error)
{
  const std::lock_guard<std::mutex> guard(state_->mutex);
  try {
    Catalog_Transaction transaction(state_->session, Catalog_Transaction::Kind::write);
    work(state_->session);
    transaction.commit();
    return true;
  } catch (const std::exception& problem) {
    error = describe(state_->path, problem);
    return false;
  }
}
} // namespace kestrel

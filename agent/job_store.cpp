#include "agent/job_store.h"

#include "agent/job_database.h"

#include <soci/soci.h>

#include <cstdlib>

namespace kestrel
{
namespace
{
const char until_name[] = "scheduled_until";
}

bool Job_Store::load(std::vector<Stored_Definition>& definitions, std::string& error) const
{
  std::vector<Stored_Definition> loaded;
  const bool done = database_.read(
      [&](soci::session& session) {
        Stored_Definition one;
        long long revision = 0;
        int enabled = 0;
        long long since = 0;
        soci::statement rows =
            (session.prepare
                 << "SELECT id, revision, enabled, origin, document, since FROM definition ORDER BY id",
             soci::into(one.id), soci::into(revision), soci::into(enabled), soci::into(one.origin),
             soci::into(one.document), soci::into(since));
        rows.execute();
        while (rows.fetch()) {
          one.revision = static_cast<uint64_t>(revision);
          one.enabled = enabled != 0;
          one.since = static_cast<time_t>(since);
          loaded.push_back(one);
        }
      },
      error);
  if (done)
    definitions.swap(loaded);
  return done;
}

bool Job_Store::change(const std::vector<Stored_Definition>& stored, const std::vector<std::string>& removed,
                       std::string& error)
{
  return database_.write(
      [&](soci::session& session) {
        for (const std::string& id : removed)
          session << "DELETE FROM definition WHERE id = :i", soci::use(id);
        for (const Stored_Definition& one : stored) {
          const long long revision = static_cast<long long>(one.revision);
          const int enabled = one.enabled;
          const long long since = one.since;
          session << "INSERT OR REPLACE INTO definition (id, revision, enabled, origin, document, since) "
                     "VALUES (:i, :r, :e, :o, :d, :s)",
              soci::use(one.id), soci::use(revision), soci::use(enabled), soci::use(one.origin),
              soci::use(one.document), soci::use(since);
        }
      },
      error);
}

bool Job_Store::set_enabled(const std::string& id, bool enabled, std::string& error)
{
  const int value = enabled;
  return database_.write(
      [&](soci::session& session) {
        session << "UPDATE definition SET enabled = :e WHERE id = :i", soci::use(value), soci::use(id);
      },
      error);
}

bool Job_Store::load_told(std::vector<Told>& told, std::string& error) const
{
  std::vector<Told> loaded;
  const bool done = database_.read(
      [&](soci::session& session) {
        Told one;
        int enabled = 0;
        soci::statement rows = (session.prepare << "SELECT id, document, enabled FROM told ORDER BY id",
                                soci::into(one.id), soci::into(one.document), soci::into(enabled));
        rows.execute();
        while (rows.fetch()) {
          one.enabled = enabled != 0;
          loaded.push_back(one);
        }
      },
      error);
  if (done)
    told.swap(loaded);
  return done;
}

bool Job_Store::set_told(const std::vector<Told>& told, std::string& error)
{
  return database_.write(
      [&](soci::session& session) {
        for (const Told& one : told) {
          const int enabled = one.enabled;
          if (one.gone)
            session << "DELETE FROM told WHERE id = :i", soci::use(one.id);
          else
            session << "INSERT OR REPLACE INTO told (id, document, enabled) VALUES (:i, :d, :e)",
                soci::use(one.id), soci::use(one.document), soci::use(enabled);
        }
      },
      error);
}

bool Job_Store::scheduled_until(time_t& until, std::string& error) const
{
  std::string value;
  if (!database_.read(
          [&](soci::session& session) {
            const std::string name = until_name;
            session << "SELECT value FROM setting WHERE name = :n", soci::use(name), soci::into(value);
          },
          error))
    return false;
  until = static_cast<time_t>(std::strtoll(value.c_str(), nullptr, 10));
  return true;
}

bool Job_Store::set_scheduled_until(time_t until, std::string& error)
{
  return database_.write(
      [&](soci::session& session) {
        const std::string name = until_name;
        const std::string value = std::to_string(static_cast<long long>(until));
        session << "INSERT OR REPLACE INTO setting (name, value) VALUES (:n, :v)", soci::use(name),
            soci::use(value);
      },
      error);
}
} // namespace kestrel

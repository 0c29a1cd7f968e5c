#include "catalog/sql_back_end.h"

#include "base/durable_file.h"
#include "base/path_conf.h"
#include "catalog/catalog_chain.h"
#include "catalog/catalog_commit.h"
#include "catalog/catalog_views.h"
#include "json/json_util.h"

#include <ace/Log_Msg.h>

#include <cerrno>
#include <set>
#include <stdexcept>

namespace kestrel
{
namespace
{
/// The one set of that uuid. Throws when there is none or, of different resources, more than one.
long long find_set(soci::session& session, const std::string& uuid)
{
  long long id = 0, number = 0;
  soci::indicator indicator = soci::i_null;
  session << "SELECT max(id), count(*) FROM backup_set WHERE uuid = :u", soci::use(uuid, "u"),
      soci::into(id, indicator), soci::into(number);
  if (number == 0)
    throw Catalog_Error(Catalog_Status::failed, "There is no backup set '" + uuid + "' in the catalog");
  if (number > 1)
    throw Catalog_Error(Catalog_Status::failed, "Several resources have a backup set '" + uuid +
                                                    "': the uuid does not tell them apart");
  return id;
}

/// The stored text of a new state. Throws when the set is on its way out, which a verification of its file,
/// or whoever has looked at it before, must not turn back.
std::string state_text(Set_State state, const std::string& uuid, const std::string& reason, bool deleting)
{
  if (state == Set_State::deleting)
    return "deleting";
  if (state == Set_State::spared)
    return reason.empty() ? "available" : "unavailable";
  if (deleting)
    throw Catalog_Error(Catalog_Status::failed, "The deletion of backup set '" + uuid +
                                                    "' has begun: delete it again to finish that");
  return state == Set_State::available ? "available" : "unavailable";
}
} // namespace

Catalog_Place default_catalog_place()
{
  Catalog_Place place;
  place.path = state_path("catalog.db");
  const std::string configuration = state_path("catalog.json");
  std::string text, cause;
  if (!read_whole_file(configuration, text, cause)) {
    if (errno != ENOENT)
      place.problem = "Cannot read " + configuration + ": " + cause;
    return place;
  }
  try {
    json_spirit::Value document;
    if (!read_json(text, document, cause))
      throw std::runtime_error(cause);
    place.server = required<std::string>(document.get_obj(), "postgresql");
    // libpq takes the first = as the sign of key and value, and a URI may hold a password between : and @.
    if (place.server.find('=') == std::string::npos || place.server.find("://") != std::string::npos)
      throw std::runtime_error("'postgresql' must be like \"host=... dbname=...\"");
    if (place.server.find("password") != std::string::npos)
      throw std::runtime_error("it must not hold a password; use the password file of PostgreSQL (.pgpass)");
  } catch (const std::exception& failure) {
    place.problem = "The configuration " + configuration + " cannot be used: " + failure.what();
  }
  return place;
}

Sql_Back_End::Sql_Back_End(const Catalog_Place& place, bool held_open)
    : place_(place), held_open_(held_open && place.server.empty())
{
}

void Sql_Back_End::hold()
{
  if (!held_open_)
    return;
  const std::lock_guard<std::mutex> guard(held_lock_);
  if (!held_)
    held_ = std::make_unique<Catalog_Database>(place_);
}

/// Runs work(session) on an open catalog; every exception ends here.
template <class Work> Catalog_Status Sql_Back_End::run(std::string& error, Work work)
{
  try {
    Catalog_Database database(place_);
    if (database.created())
      ACE_DEBUG((LM_NOTICE, "(%P|%t) There was no catalog yet: the empty catalog %s was made\n",
                 place_.name().c_str()));
    hold();
    work(database.session());
    return Catalog_Status::done;
  } catch (const std::invalid_argument& refused) {
    error = refused.what();
    return Catalog_Status::failed;
  } catch (const std::exception& failure) {
    const Catalog_Error translated = Catalog_Database::translate(place_, failure);
    error = translated.what();
    return translated.status();
  }
}

Catalog_Status Sql_Back_End::get_view(const std::string& catalog, const std::string& view,
                                      const std::map<std::string, json_spirit::Value>& query,
                                      json_spirit::Value& result, std::string& error)
{
  return run(error, [&](soci::session& session) {
    Catalog_Transaction transaction(session, Catalog_Transaction::Kind::read);
    json_spirit::Object answer;
    if (view == "catalogs")
      answer = catalogs_view(session, catalog, query);
    else if (view == "catalog_sequences")
      answer = sequences_view(session, catalog, query);
    else
      throw std::invalid_argument("The catalog has no view '" + view + "'");
    transaction.commit();
    result = std::move(answer);
  });
}

Catalog_Status Sql_Back_End::commit(const Backup_Record& record, bool must_be_new, std::string& warning,
                                    std::string& error)
{
  return run(error, [&](soci::session& session) {
    const Commit_Row row(record);
    Catalog_Transaction transaction(session, Catalog_Transaction::Kind::write);
    if (row.is_recorded(session)) {
      if (must_be_new)
        throw Catalog_Error(
            Catalog_Status::failed,
            "The catalog " + place_.name() + " already has a backup set '" + row.uuid() +
                "': a backup is recorded once. If the tool gave two backups the same id, the second "
                "one cannot be told from the first; run a full backup");
      return;
    }
    if (row.is_archive_recorded(session))
      throw Catalog_Error(Catalog_Status::failed,
                          "The catalog " + place_.name() + " already has a backup set for the archive of '" +
                              row.uuid() + "': its number was given twice. Run the backup again");
    const bool missing = row.insert(session);
    std::string problem;
    if (!missing && !row.predecessor_id().empty())
      problem = Chain_Judge(session).judge(row.resource_uuid(), row.predecessor_id()).problem;
    transaction.commit();
    if (missing)
      warning = "Backup set '" + row.uuid() + "' builds on backup '" + row.predecessor_id() +
                "', which is not in the catalog: it cannot be restored. Run a full backup";
    else if (!problem.empty())
      warning = "Backup set '" + row.uuid() +
                "' cannot be restored, because a backup that it builds on cannot: " + problem +
                ". Run a full backup";
  });
}

Catalog_Status Sql_Back_End::set_state(const std::string& uuid, Set_State state, const std::string& reason,
                                       std::string& error)
{
  return run(error, [&](soci::session& session) {
    Catalog_Transaction transaction(session, Catalog_Transaction::Kind::write);
    const long long id = find_set(session, uuid);
    std::string former;
    session << "SELECT state FROM backup_set WHERE id = :i", soci::use(id, "i"), soci::into(former);
    if (state == Set_State::spared && former != "deleting")
      return;
    const std::string text = state_text(state, uuid, reason, former == "deleting");
    session << "UPDATE backup_set SET state = :s, state_reason = :r WHERE id = :i", soci::use(text, "s"),
        soci::use(reason, "r"), soci::use(id, "i");
    transaction.commit();
  });
}

Catalog_Status Sql_Back_End::remove(const std::string& uuid, std::string& error)
{
  return run(error, [&](soci::session& session) {
    Catalog_Transaction transaction(session, Catalog_Transaction::Kind::write);
    const long long id = find_set(session, uuid);
    std::string catalog, resource, backup_id;
    soci::indicator has_backup_id = soci::i_null;
    session << "SELECT catalog, resource_uuid, backup_id FROM backup_set WHERE id = :i", soci::use(id, "i"),
        soci::into(catalog), soci::into(resource), soci::into(backup_id, has_backup_id);
    if (has_backup_id == soci::i_ok)
      flag_children(session, resource, backup_id, true);
    session << "DELETE FROM backup_set WHERE id = :i", soci::use(id, "i");
    transaction.commit();
  });
}

Catalog_Status Sql_Back_End::dependents(const std::string& uuid, std::vector<std::string>& uuids,
                                        std::string& error)
{
  return run(error, [&](soci::session& session) {
    Catalog_Transaction transaction(session, Catalog_Transaction::Kind::read);
    const long long id = find_set(session, uuid);
    std::string catalog, resource, backup_id;
    soci::indicator has_backup_id = soci::i_null;
    session << "SELECT catalog, resource_uuid, backup_id FROM backup_set WHERE id = :i", soci::use(id, "i"),
        soci::into(catalog), soci::into(resource), soci::into(backup_id, has_backup_id);
    std::vector<std::string> found, queue = {backup_id};
    std::set<std::string> seen = {uuid};
    for (size_t i = 0; has_backup_id == soci::i_ok && i < queue.size(); ++i) {
      std::string child_uuid, child_id;
      const std::string parent = queue[i];
      soci::statement children =
          (session.prepare
               << "SELECT uuid, backup_id FROM backup_set WHERE catalog = :c AND predecessor_id = :p AND "
                  "resource_uuid = :r ORDER BY id",
           soci::use(catalog, "c"), soci::use(parent, "p"), soci::use(resource, "r"), soci::into(child_uuid),
           soci::into(child_id));
      for (children.execute(); children.fetch();)
        if (seen.insert(child_uuid).second) {
          found.push_back(child_uuid);
          queue.push_back(child_id);
        }
    }
    transaction.commit();
    uuids.swap(found);
  });
}

Catalog_Status Sql_Back_End::count_by_pool(const std::string& pool_uuid, uint64_t& count, std::string& error)
{
  return run(error, [&](soci::session& session) {
    long long sets = 0;
    session << "SELECT count(DISTINCT set_id) FROM backup_set_storage WHERE pool_uuid = :p",
        soci::use(pool_uuid, "p"), soci::into(sets);
    count = static_cast<uint64_t>(sets);
  });
}
} // namespace kestrel

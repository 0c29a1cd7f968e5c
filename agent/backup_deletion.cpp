#include "agent/backup_deletion.h"

#include "agent/catalog_view.h"
#include "base/ignore_result.h"
#include "catalog/catalog_retry.h"

#include <stdexcept>

namespace kestrel
{
namespace
{
using json_spirit::Array;
using json_spirit::Object;

const size_t LISTED = 5;

/// A catalog, and the field of its records that names the folder of the stored file.
const struct {
  const char* catalog;
  const char* folder_field;
} CATALOGS[] = {{"oscar_brcmd", "uri"}, {"oscar", "minor_resource_id"}};

struct Failure : std::runtime_error {
  Failure(Deletion_Problem::Kind why, const std::string& text) : std::runtime_error(text), kind(why) {}
  const Deletion_Problem::Kind kind;
};

/// Carries the work out; what it throws becomes the problem.
template <class Work> bool attempt(Deletion_Problem& problem, Work work)
{
  try {
    work();
    return true;
  } catch (const Failure& failure) {
    problem = {failure.kind, failure.what()};
  } catch (const std::exception& failure) {
    problem = {Deletion_Problem::catalog,
               std::string("the catalog's answer cannot be used: ") + failure.what()};
  }
  return false;
}

std::string list_of(const std::vector<std::string>& uuids)
{
  std::string text;
  for (size_t i = 0; i < uuids.size() && i < LISTED; ++i)
    text += (i ? ", " : "") + uuids[i];
  if (uuids.size() > LISTED)
    text += " and " + std::to_string(uuids.size() - LISTED) + " more";
  return text;
}

Deletion_Problem::Kind problem_of(Catalog_Status status)
{
  switch (status) {
  case Catalog_Status::busy:
    return Deletion_Problem::busy;
  case Catalog_Status::broken:
    return Deletion_Problem::broken;
  default:
    return Deletion_Problem::catalog;
  }
}
} // namespace

struct Backup_Deletion::Found {
  Deleted_Backup backup;
  bool available = false;
  bool deleting = false;
  std::string state_reason;
};

Backup_Deletion::Backup_Deletion(std::shared_ptr<Catalog_Back_End> catalog, const Pool_Registry& pools,
                                 int retry_seconds)
    : catalog_(std::move(catalog)), pools_(pools), retry_seconds_(retry_seconds)
{
}

template <class Operation> void Backup_Deletion::ask(Operation operation)
{
  std::string error;
  Catalog_Status last = Catalog_Status::failed;
  if (!retry_while_busy(retry_seconds_, error, [&](std::string& text) { return last = operation(text); }))
    throw Failure(problem_of(last), error);
}

Array Backup_Deletion::rows(const std::string& catalog,
                            const std::map<std::string, json_spirit::Value>& query)
{
  json_spirit::Value result;
  ask([&](std::string& error) { return catalog_->get_view(catalog, "catalogs", query, result, error); });
  return required<Array>(result.get_obj(), "rows");
}

Backup_Deletion::Found Backup_Deletion::look_up(const std::string& uuid)
{
  for (const auto& known : CATALOGS) {
    const Array found = rows(known.catalog, {{"uuid", uuid}, {"limit", 1}});
    if (found.empty())
      continue;
    const Object& row = found.front().get_obj();
    Found result;
    result.backup.uuid = uuid;
    result.backup.catalog = known.catalog;
    result.backup.resource_uuid = value_or_default<std::string>(row, "resource_uuid");
    result.backup.pool_uuid = value_or_default<std::string>(row, "pool_uuid");
    result.backup.folder = value_or_default<std::string>(row, known.folder_field);
    result.backup.file = value_or_default<std::string>(row, "backup_file");
    result.backup.stored_size = number_of_row(row, "backup_set_storage_size");
    result.available = !value_or_default<Array>(row, "state").empty();
    result.deleting = value_or_default<bool>(row, "deletion_begun");
    result.state_reason = value_or_default<std::string>(row, "state_reason");
    return result;
  }
  throw Failure(Deletion_Problem::not_found, "there is no backup " + uuid + " in the catalog");
}

void Backup_Deletion::check_not_needed(const std::string& uuid)
{
  std::vector<std::string> uuids;
  ask([&](std::string& error) { return catalog_->dependents(uuid, uuids, error); });
  if (!uuids.empty())
    throw Failure(Deletion_Problem::needed, "the backup " + uuid + " is needed by " +
                                                std::to_string(uuids.size()) + " that build on it (" +
                                                list_of(uuids) + "): those must be deleted before it");
}

/// The names in a record are the agent's: they must not reach what is another backup's.
void Backup_Deletion::check_not_shared(const Deleted_Backup& backup)
{
  for (const auto& known : CATALOGS)
    for (const json_spirit::Value& row : rows(known.catalog, {{"pool_uuid", backup.pool_uuid},
                                                              {known.folder_field, backup.folder},
                                                              {"backup_file", backup.file}})) {
      const std::string other = required<std::string>(row.get_obj(), "uuid");
      if (other != backup.uuid)
        throw Failure(Deletion_Problem::shared,
                      "the stored file of backup " + backup.uuid + " is that of backup " + other +
                          ", too; its record can be deleted alone, without the file (--keep-file)");
    }
}

/// What refuses before anything was begun leaves the backup as it was.
void Backup_Deletion::connect(const Deleted_Backup& backup, Pool_Info& pool, Directory_Back_End& back_end)
{
  const std::string what = "the stored file of backup " + backup.uuid + " cannot be deleted: ";
  const std::string else_record = "; its record can be deleted alone, without the file (--keep-file)";
  std::string error;
  if (!pools_.find(backup.pool_uuid, pool, error))
    throw Failure(Deletion_Problem::pool, what + error + else_record);
  if (!pool.back_end.empty())
    throw Failure(Deletion_Problem::pool, what + "the pool " + pool.name + " does not lie on this machine");
  Client_IO_Base::Options options;
  options.storage_path = pool.storage_path;
  options.pool_marked = pool.marked;
  if (!is_stored_file_name(backup.file, error) ||
      !back_end.connect(pool.storage_path + "/" + backup.folder, options, error))
    throw Failure(Deletion_Problem::storage, what + error + else_record);
}

void Backup_Deletion::mark(const Found& found)
{
  ask([&](std::string& error) {
    return catalog_->set_state(found.backup.uuid, Set_State::deleting,
                               "its deletion has begun; delete it again to finish that", error);
  });
}

/// Unless an earlier deletion had marked it: what that one left of the file is not known.
void Backup_Deletion::unmark(const Found& found)
{
  if (found.deleting)
    return;
  std::string error;
  const std::string reason = found.available            ? std::string()
                             : found.state_reason.empty() ? "it was unavailable before"
                                                          : found.state_reason;
  ignore_result(retry_while_busy(retry_seconds_, error,
                                 [&](std::string& text) {
                                   return catalog_->set_state(found.backup.uuid, Set_State::spared, reason, text);
                                 }),
                "the mark says what to do, and the refusal is told");
}

bool Backup_Deletion::find(const std::string& uuid, Deleted_Backup& backup, Deletion_Problem& problem)
{
  return attempt(problem, [&] { backup = look_up(uuid).backup; });
}

bool Backup_Deletion::run(const std::string& uuid, bool keep_file, Deleted_Backup& deleted,
                          Deletion_Problem& problem)
{
  return attempt(problem, [&] {
    Found found = look_up(uuid);
    check_not_needed(uuid);
    Pool_Info pool;
    Directory_Back_End back_end;
    if (!keep_file) {
      check_not_shared(found.backup);
      connect(found.backup, pool, back_end);
    }
    mark(found);
    try {
      check_not_needed(uuid);
    } catch (const Failure&) {
      unmark(found);
      throw;
    }
    std::string error;
    if (!keep_file && !back_end.remove(found.backup.file, error))
      throw Failure(Deletion_Problem::storage, "the stored file of backup " + uuid + " in pool " + pool.name +
                                                   " was not deleted: " + error +
                                                   "; once that is repaired, delete the backup again");
    found.backup.pool_name = pool.name;
    ask([&](std::string& text) { return catalog_->remove(uuid, text); });
    deleted = found.backup;
  });
}
} // namespace kestrel

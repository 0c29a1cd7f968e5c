#include "server/backup_resources.h"

#include "server/catalog_resources.h"
#include "json/json_util.h"

namespace kestrel
{
namespace
{
using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;
} // namespace

Backup_Resources::Backup_Resources(const Pool_Registry& pools, std::shared_ptr<Catalog_Back_End> catalog,
                                   const Recent_Reads& reads)
    : catalog_(std::move(catalog)), deletion_(catalog_, pools, 0), reads_(reads)
{
}

void Backup_Resources::add_to(REST_Router& router)
{
  router.add("DELETE", "/k2/r/backups/{uuid}", REST_Access::admin,
             [this](REST_Request& request) { return remove(request); });
}

void Backup_Resources::refuse(const Deletion_Problem& problem)
{
  switch (problem.kind) {
  case Deletion_Problem::not_found:
    throw REST_Error(404, "not_found", problem.text);
  case Deletion_Problem::needed:
    throw REST_Error(409, "needed", problem.text);
  case Deletion_Problem::shared:
    throw REST_Error(409, "shared", problem.text);
  case Deletion_Problem::pool:
    throw REST_Error(409, "pool", problem.text);
  case Deletion_Problem::storage:
    throw REST_Error(507, "storage", problem.text);
  case Deletion_Problem::busy:
    throw REST_Error(503, "busy", problem.text);
  case Deletion_Problem::broken:
    check_catalog(Catalog_Status::broken, problem.text);
    break;
  case Deletion_Problem::none:
  case Deletion_Problem::catalog:
    break;
  }
  throw REST_Error(422, "catalog", problem.text);
}

/// A restore that misses a file half-way has cost the instance its data.
void Backup_Resources::check_unread(const Deleted_Backup& backup)
{
  bool read = reads_.has(backup.pool_uuid, backup.folder, backup.file);
  if (backup.catalog == "oscar_brcmd") {
    Value chain;
    std::string error;
    check_catalog(catalog_->get_view(backup.catalog, "catalog_sequences",
                                     {{"backup_id", backup.uuid}, {"resource_uuid", backup.resource_uuid}},
                                     chain, error),
                  error);
    for (const Value& row : required<Array>(chain.get_obj(), "rows"))
      read = read || reads_.has(required<std::string>(row.get_obj(), "pool_uuid"),
                                required<std::string>(row.get_obj(), "uri"),
                                required<std::string>(row.get_obj(), "backup_file"));
  }
  if (read)
    throw REST_Error(409, "in_use",
                     "the backup " + backup.uuid +
                         " or one that it builds on was read within the last two minutes: a restore "
                         "that is under way would fail; try again when it has ended");
}

REST_Reply Backup_Resources::remove(REST_Request& request)
{
  const std::string& uuid = request.vars["uuid"];
  const bool keep_file = request.query_number("keep_file", 0, 0, 1) != 0;
  const std::lock_guard<std::mutex> one(deletions_);
  Deleted_Backup backup;
  Deletion_Problem problem;
  if (!deletion_.find(uuid, backup, problem))
    refuse(problem);
  if (!keep_file)
    check_unread(backup);
  if (!deletion_.run(uuid, keep_file, backup, problem))
    refuse(problem);
  REST_Reply reply;
  reply.json = Object{{"uuid", backup.uuid},     {"catalog", backup.catalog}, {"pool", backup.pool_name},
                      {"folder", backup.folder}, {"file", backup.file},       {"size", backup.stored_size}};
  reply.audit = "backup set of " + backup.catalog +
                (keep_file ? ", its file kept: " : ", with its file: " + backup.pool_name + ": ") +
                backup.folder + "/" + backup.file;
  return reply;
}
} // namespace kestrel

#include "cli/backup_output.h"

#include "cli/export_output.h"
#include "cli/text_format.h"
#include "json/json_util.h"

namespace kestrel
{
std::string pool_name(Command_Context& context, const std::string& pool_id)
{
  Pool_Info pool;
  std::string error;
  return context.find_pool(pool_id, pool, error) ? pool.name : pool_id;
}

const char* state_word(const Backup_Entry& backup)
{
  if (!backup.available)
    return "unusable";
  return backup.chain_length == 0 ? "chain_broken" : "available";
}

const char* state_text(const Backup_Entry& backup)
{
  if (!backup.available)
    return "unusable";
  return backup.chain_length == 0 ? "no chain" : "ok";
}

json_spirit::Value parent_of(const Backup_Entry& backup)
{
  return backup.predecessor_id.empty() ? json_spirit::Value() : json_spirit::Value(backup.predecessor_id);
}

json_spirit::Object json_of_backup(Command_Context& context, const Backup_Entry& backup)
{
  json_spirit::Object object;
  set_value(object, "id", backup.id);
  set_value(object, "instance", context.instance_name(backup.resource_uuid));
  set_value(object, "resource_uuid", backup.resource_uuid);
  set_value(object, "level", backup.level);
  set_value(object, "state", state_word(backup));
  set_value(object, "state_reason", backup.state_reason);
  set_value(object, "start_time", format_time_rfc3339(backup.start_time));
  set_value(object, "end_time", format_time_rfc3339(backup.end_time));
  set_value(object, "size", backup.size);
  set_value(object, "stored_size", backup.stored_size);
  set_value(object, "compression", backup.compression);
  set_value(object, "pool", pool_name(context, backup.pool_uuid));
  set_value(object, "pool_uuid", backup.pool_uuid);
  set_value(object, "folder", backup.uri);
  set_value(object, "file", backup.file);
  set_value(object, "pump_size", backup.pump_size);
  set_value(object, "pump_checksum", backup.pump_checksum);
  set_value(object, "original_checksum", backup.original_checksum);
  set_value(object, "storage_checksum", backup.storage_checksum);
  set_value(object, "full_backup_id", backup.full_backup_id);
  set_value(object, "parent", parent_of(backup));
  set_value(object, "parent_missing", backup.predecessor_missing);
  set_value(object, "children", json_spirit::Array(backup.children.begin(), backup.children.end()));
  set_value(object, "chain_length", backup.chain_length);
  set_value(object, "chain_problem", backup.chain_problem);
  set_value(object, "lsn", backup.lsn);
  set_value(object, "scn", backup.scn);
  return object;
}

bool find_backup(Command_Context& context, const std::string& reference, Backup_Entry& backup)
{
  std::string resource_uuid;
  if (!context.resource_of(context.line().instance, resource_uuid))
    return false;
  std::string error;
  if (resolve_backup(reference, resource_uuid, backup, error))
    return true;
  Export_Entry exported;
  if (means_export(reference, exported))
    error = exported.id + " is an export; bring it back with: kestrel import " + exported.id;
  context.fail(error);
  return false;
}
} // namespace kestrel

#include "oscar/brcmd_set_record.h"

#include <stdexcept>

#include <ace/Log_Msg.h>

#include "catalog/catalog_operator.h"

namespace oscar
{
namespace
{
typedef std::map<std::string, json_spirit::Value> Values;

const char CATALOG_TYPE[] = "oscar_brcmd_backup_set";

const json_spirit::Value& value_of(const Values& values, const char* key)
{
  const Values::const_iterator found = values.find(key);
  if (found == values.end())
    throw std::runtime_error(std::string("key \"") + key + "\" is missing");
  return found->second;
}

/// Adds the key to the accessor's text, which only names the types.
template <class Get>
auto typed(const Values& values, const char* key, Get get) -> decltype(get(values.begin()->second))
{
  const json_spirit::Value& value = value_of(values, key);
  try {
    return get(value);
  } catch (const std::exception& error) {
    throw std::runtime_error(std::string("key \"") + key + "\": " + error.what());
  }
}

std::string text(const Values& values, const char* key)
{
  return typed(values, key, [](const json_spirit::Value& value) -> std::string { return value.get_str(); });
}

// Sizes, LSN and SCN are 64-bit patterns: a value above the signed range comes back as it was.
uint64_t number(const Values& values, const char* key)
{
  return static_cast<uint64_t>(
      typed(values, key, [](const json_spirit::Value& value) -> int64_t { return value.get_int64(); }));
}

void fill_identity(const Values& values, Oscar_Brcmd_Backup_Set& set)
{
  set.set_uid(text(values, "uid"));
  set.set_definition_uuid(text(values, "definition_uuid"));
  set.set_name(text(values, "name"));
  set.set_agent(text(values, "agent"));
  set.set_host_uuid(text(values, "host_uuid"));
  set.set_resource_uuid(text(values, "resource_uuid"));
  set.set_uri(text(values, "uri"));
  set.set_type(text(values, "type"));
  set.set_backup_file(text(values, "backup_file"));
  const uint64_t size = number(values, "backup_set_size");
  set.set_backup_set_size(size);
  set.set_total_size(size);
}

void fill_chain(const Values& values, Oscar_Brcmd_Backup_Set& set)
{
  set.set_uuid(text(values, "uuid"));
  set.set_backup_id(text(values, "backup_id"));
  set.set_backup_lsn(number(values, "backup_lsn"));
  set.set_backup_scn(number(values, "backup_scn"));
  set.set_last_backup_id(text(values, "last_backup_id"));
  set.set_last_backup_lsn(number(values, "last_backup_lsn"));
  set.set_last_backup_scn(number(values, "last_backup_scn"));
  set.set_last_full_backup_id(text(values, "last_full_backup_id"));
  set.set_last_full_backup_lsn(number(values, "last_full_backup_lsn"));
  set.set_last_full_backup_scn(number(values, "last_full_backup_scn"));
}

void fill_minor_id(const std::string& resource_id, Oscar_Brcmd_Backup_Set& set)
{
  std::string minor_id;
  if (compute_minor_resource_id(resource_id, CATALOG_TYPE, minor_id))
    set.set_minor_resource_id(minor_id);
  else
    ACE_ERROR((LM_ERROR, "Failed to compute minor resource id for resource '%s' and backup type '%s'\n",
               resource_id.c_str(), CATALOG_TYPE));
}
} // namespace

bool fill_brcmd_backup_set(const Values& values, const std::string& resource_id, time_t start_time,
                           time_t end_time, Oscar_Brcmd_Backup_Set& set)
{
  try {
    fill_identity(values, set);
    fill_chain(values, set);
    const std::string pool_uuid = text(values, "pool_uuid");
    const uint64_t storage_size = number(values, "backup_set_storage_size");

    set.set_catalog_type(CATALOG_TYPE);
    fill_minor_id(resource_id, set);
    set.set_start_time(start_time);
    set.set_end_time(end_time);
    // An incremental or differential set refers to the full set that its chain starts from.
    set.set_full_backup_id(set.type() == "full" ? set.uuid() : set.last_full_backup_id());
    set.add_storage(Backup_Set_Storage(pool_uuid, storage_size));
    set.add_piece(set.backup_file(), 0);
    return true;
  } catch (const std::exception& error) {
    ACE_ERROR((LM_ERROR, "Failed to build oscar brcmd backup set: %s\n", error.what()));
    return false;
  }
}
} // namespace oscar

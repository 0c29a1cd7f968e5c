#include "catalog/catalog_fields.h"

namespace kestrel
{
const std::vector<Catalog_Field>& catalog_fields()
{
  static const std::vector<Catalog_Field> fields = {
      {"uuid", Field_Kind::text, both_catalogs, true},
      {"catalog_type", Field_Kind::text, both_catalogs, true},
      {"type", Field_Kind::text, both_catalogs, true},
      {"seq", Field_Kind::number, logical_catalog, true},
      {"uid", Field_Kind::text, both_catalogs, true},
      {"definition_uuid", Field_Kind::text, both_catalogs, true},
      {"name", Field_Kind::text, both_catalogs, true},
      {"agent", Field_Kind::text, both_catalogs, true},
      {"host_uuid", Field_Kind::text, both_catalogs, true},
      {"resource_uuid", Field_Kind::text, both_catalogs, true},
      {"minor_resource_id", Field_Kind::text, both_catalogs, true},
      {"uri", Field_Kind::text, brcmd_catalog, true},
      {"backup_file", Field_Kind::text, both_catalogs, true},
      {"pool_uuid", Field_Kind::text, both_catalogs, false},
      {"backup_set_size", Field_Kind::number, both_catalogs, true},
      {"backup_set_storage_size", Field_Kind::number, both_catalogs, false},
      {"total_size", Field_Kind::number, both_catalogs, true},
      {"start_time", Field_Kind::time, both_catalogs, true},
      {"end_time", Field_Kind::time, both_catalogs, true},
      {"backup_id", Field_Kind::text, brcmd_catalog, true},
      {"backup_lsn", Field_Kind::number, brcmd_catalog, true},
      {"backup_scn", Field_Kind::number, brcmd_catalog, true},
      {"last_backup_id", Field_Kind::text, brcmd_catalog, true},
      {"last_backup_lsn", Field_Kind::number, brcmd_catalog, true},
      {"last_backup_scn", Field_Kind::number, brcmd_catalog, true},
      {"last_full_backup_id", Field_Kind::text, brcmd_catalog, true},
      {"last_full_backup_lsn", Field_Kind::number, brcmd_catalog, true},
      {"last_full_backup_scn", Field_Kind::number, brcmd_catalog, true},
      {"full_backup_id", Field_Kind::text, brcmd_catalog, true},
      {"predecessor_id", Field_Kind::text, brcmd_catalog, false},
      {"predecessor_missing", Field_Kind::flag, brcmd_catalog, false},
      {"compression", Field_Kind::text, both_catalogs, true},
      {"pump_size", Field_Kind::number, brcmd_catalog, true},
      {"pump_checksum", Field_Kind::text, brcmd_catalog, true},
      {"original_checksum", Field_Kind::text, both_catalogs, true},
      {"storage_checksum", Field_Kind::text, both_catalogs, true},
      {"dbinstance", Field_Kind::text, logical_catalog, true},
      {"tablespaces", Field_Kind::json, logical_catalog, true},
      {"state", Field_Kind::text, both_catalogs, false},
      {"state_reason", Field_Kind::text, both_catalogs, true},
  };
  return fields;
}

unsigned catalog_bit(const std::string& catalog)
{
  if (catalog == "oscar_brcmd")
    return brcmd_catalog;
  return catalog == "oscar" ? static_cast<unsigned>(logical_catalog) : 0;
}

const Catalog_Field* find_catalog_field(unsigned catalog_bit, const std::string& name)
{
  const std::string column = name == "backup_start_time" ? "start_time" : name;
  for (const Catalog_Field& field : catalog_fields())
    if (column == field.name && (field.catalogs & catalog_bit))
      return &field;
  return nullptr;
}
} // namespace kestrel

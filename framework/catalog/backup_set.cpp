#include "catalog/backup_set.h"

Backup_Set_Storage::Backup_Set_Storage(const std::string& pool_uuid, unsigned long long size)
    : pool_uuid_(pool_uuid), size_(size)
{
}

Backup_Set::~Backup_Set() = default;

void Backup_Set::add_storage(const Backup_Set_Storage& storage)
{
  storages_.push_back({storage.pool_uuid(), storage.size()});
}

void Backup_Set::add_piece(const std::string& name, unsigned long long size)
{
  pieces_.push_back({name, size});
}

kestrel::Backup_Record Backup_Set::common_record(const char* catalog) const
{
  kestrel::Backup_Record record;
  record.catalog = catalog;
  auto& fields = record.fields;
  fields["uid"] = uid_;
  fields["definition_uuid"] = definition_uuid_;
  fields["name"] = name_;
  fields["agent"] = agent_;
  fields["host_uuid"] = host_uuid_;
  fields["resource_uuid"] = resource_uuid_;
  fields["uuid"] = uuid_;
  fields["catalog_type"] = catalog_type_;
  fields["minor_resource_id"] = minor_resource_id_;
  fields["backup_set_size"] = backup_set_size_;
  fields["total_size"] = total_size_;
  fields["start_time"] = static_cast<int64_t>(start_time_);
  fields["end_time"] = static_cast<int64_t>(end_time_);
  fields["compression"] = compression_;
  fields["original_checksum"] = original_checksum_;
  fields["storage_checksum"] = storage_checksum_;
  if (!unusable_reason_.empty())
    fields["state_reason"] = unusable_reason_;
  record.storages = storages_;
  record.pieces = pieces_;
  return record;
}

kestrel::Backup_Record Oscar_Brcmd_Backup_Set::record() const
{
  kestrel::Backup_Record record = common_record("oscar_brcmd");
  auto& fields = record.fields;
  fields["uri"] = uri_;
  fields["type"] = type_;
  fields["backup_file"] = backup_file_;
  fields["backup_id"] = backup_id_;
  fields["backup_lsn"] = backup_lsn_;
  fields["backup_scn"] = backup_scn_;
  fields["last_backup_id"] = last_backup_id_;
  fields["last_backup_lsn"] = last_backup_lsn_;
  fields["last_backup_scn"] = last_backup_scn_;
  fields["last_full_backup_id"] = last_full_backup_id_;
  fields["last_full_backup_lsn"] = last_full_backup_lsn_;
  fields["last_full_backup_scn"] = last_full_backup_scn_;
  fields["full_backup_id"] = full_backup_id_;
  fields["pump_size"] = pump_size_;
  fields["pump_checksum"] = pump_checksum_;
  return record;
}

void Oscar_Backup_Set::add_file(const std::string& database, const std::string& schema,
                                const std::string& table, const std::string& file, uint64_t size,
                                const std::string& checksum)
{
  const char* grade = !table.empty() ? "table" : !schema.empty() ? "schema" : "database";
  files_.push_back({database, schema, table, file, grade, size, checksum});
}

kestrel::Backup_Record Oscar_Backup_Set::record() const
{
  kestrel::Backup_Record record = common_record("oscar");
  record.fields["type"] = type_;
  record.fields["seq"] = seq_;
  record.fields["dbinstance"] = dbinstance_;
  record.fields["tablespaces"] = tablespaces_;
  record.files = files_;
  return record;
}

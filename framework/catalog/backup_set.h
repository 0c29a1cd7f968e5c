#pragma once

#include "catalog/backup_record.h"

#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

/// Where a set's bytes lie and how many they are as stored.
class Backup_Set_Storage
{
public:
  Backup_Set_Storage(const std::string& pool_uuid, unsigned long long size);

  const std::string& pool_uuid() const { return pool_uuid_; }
  uint64_t size() const { return size_; }

private:
  std::string pool_uuid_;
  uint64_t size_;
};

/// What a finished backup tells the catalog: Catalog_Operator::commit() stores it as one record.
/// A plain holder: nothing is checked here, the commit refuses what it cannot store.
/// Threads:   none of its own; one owner.
/// Units:     sizes in bytes, times in seconds since the epoch.
class Backup_Set
{
public:
  virtual ~Backup_Set();

  /// The first storage and the first piece are the ones that catalog rows show at their top level.
  void add_storage(const Backup_Set_Storage& storage);
  void add_piece(const std::string& name, unsigned long long size);

  /// The neutral form for the catalog's back ends.
  virtual kestrel::Backup_Record record() const = 0;

  void set_uid(const std::string& value) { uid_ = value; }
  const std::string& uid() const { return uid_; }
  void set_definition_uuid(const std::string& value) { definition_uuid_ = value; }
  const std::string& definition_uuid() const { return definition_uuid_; }
  void set_name(const std::string& value) { name_ = value; }
  const std::string& name() const { return name_; }
  void set_agent(const std::string& value) { agent_ = value; }
  const std::string& agent() const { return agent_; }
  void set_host_uuid(const std::string& value) { host_uuid_ = value; }
  const std::string& host_uuid() const { return host_uuid_; }
  void set_resource_uuid(const std::string& value) { resource_uuid_ = value; }
  const std::string& resource_uuid() const { return resource_uuid_; }
  void set_uuid(const std::string& value) { uuid_ = value; }
  const std::string& uuid() const { return uuid_; }
  void set_catalog_type(const std::string& value) { catalog_type_ = value; }
  const std::string& catalog_type() const { return catalog_type_; }
  void set_minor_resource_id(const std::string& value) { minor_resource_id_ = value; }
  const std::string& minor_resource_id() const { return minor_resource_id_; }
  void set_backup_set_size(uint64_t value) { backup_set_size_ = value; }
  uint64_t backup_set_size() const { return backup_set_size_; }
  void set_total_size(uint64_t value) { total_size_ = value; }
  uint64_t total_size() const { return total_size_; }
  void set_start_time(time_t value) { start_time_ = value; }
  time_t start_time() const { return start_time_; }
  void set_end_time(time_t value) { end_time_ = value; }
  time_t end_time() const { return end_time_; }

  /// About the stored file: its compression method's name and the storage's checksums, which verification
  /// compares. May stay empty.
  void set_compression(const std::string& value) { compression_ = value; }
  const std::string& compression() const { return compression_; }
  void set_original_checksum(const std::string& value) { original_checksum_ = value; }
  const std::string& original_checksum() const { return original_checksum_; }
  void set_storage_checksum(const std::string& value) { storage_checksum_ = value; }
  const std::string& storage_checksum() const { return storage_checksum_; }
  /// Why no restore can use the set, when that is known from the beginning: it is recorded as unavailable.
  /// Empty for all others.
  void set_unusable_reason(const std::string& value) { unusable_reason_ = value; }
  const std::string& unusable_reason() const { return unusable_reason_; }

protected:
  /// The common fields, storages and pieces.
  kestrel::Backup_Record common_record(const char* catalog) const;

private:
  std::string uid_;
  std::string definition_uuid_;
  std::string name_;
  std::string agent_;
  std::string host_uuid_;
  std::string resource_uuid_;
  std::string uuid_;
  std::string catalog_type_;
  std::string minor_resource_id_;
  uint64_t backup_set_size_ = 0;
  uint64_t total_size_ = 0;
  time_t start_time_ = 0;
  time_t end_time_ = 0;
  std::string compression_;
  std::string original_checksum_;
  std::string storage_checksum_;
  std::string unusable_reason_;
  std::vector<kestrel::Backup_Record::Storage> storages_;
  std::vector<kestrel::Backup_Record::Piece> pieces_;
};

/// A physical backup: one record of the catalog "oscar_brcmd". The setters are named as the record's keys.
/// LSN and SCN are kept as 64-bit patterns: a signed value may be given and comes back the same through
/// get_int64().
class Oscar_Brcmd_Backup_Set : public Backup_Set
{
public:
  kestrel::Backup_Record record() const override;

  void set_uri(const std::string& value) { uri_ = value; }
  const std::string& uri() const { return uri_; }
  void set_type(const std::string& value) { type_ = value; }
  const std::string& type() const { return type_; }
  void set_backup_file(const std::string& value) { backup_file_ = value; }
  const std::string& backup_file() const { return backup_file_; }
  void set_backup_id(const std::string& value) { backup_id_ = value; }
  const std::string& backup_id() const { return backup_id_; }
  void set_backup_lsn(uint64_t value) { backup_lsn_ = value; }
  uint64_t backup_lsn() const { return backup_lsn_; }
  void set_backup_scn(uint64_t value) { backup_scn_ = value; }
  uint64_t backup_scn() const { return backup_scn_; }
  void set_last_backup_id(const std::string& value) { last_backup_id_ = value; }
  const std::string& last_backup_id() const { return last_backup_id_; }
  void set_last_backup_lsn(uint64_t value) { last_backup_lsn_ = value; }
  uint64_t last_backup_lsn() const { return last_backup_lsn_; }
  void set_last_backup_scn(uint64_t value) { last_backup_scn_ = value; }
  uint64_t last_backup_scn() const { return last_backup_scn_; }
  void set_last_full_backup_id(const std::string& value) { last_full_backup_id_ = value; }
  const std::string& last_full_backup_id() const { return last_full_backup_id_; }
  void set_last_full_backup_lsn(uint64_t value) { last_full_backup_lsn_ = value; }
  uint64_t last_full_backup_lsn() const { return last_full_backup_lsn_; }
  void set_last_full_backup_scn(uint64_t value) { last_full_backup_scn_ = value; }
  uint64_t last_full_backup_scn() const { return last_full_backup_scn_; }
  void set_full_backup_id(const std::string& value) { full_backup_id_ = value; }
  const std::string& full_backup_id() const { return full_backup_id_; }

  /// What entered the storage client; verification compares it. May stay empty.
  void set_pump_size(uint64_t value) { pump_size_ = value; }
  uint64_t pump_size() const { return pump_size_; }
  void set_pump_checksum(const std::string& value) { pump_checksum_ = value; }
  const std::string& pump_checksum() const { return pump_checksum_; }

private:
  std::string uri_;
  std::string type_;
  std::string backup_file_;
  std::string backup_id_;
  uint64_t backup_lsn_ = 0;
  uint64_t backup_scn_ = 0;
  std::string last_backup_id_;
  uint64_t last_backup_lsn_ = 0;
  uint64_t last_backup_scn_ = 0;
  std::string last_full_backup_id_;
  uint64_t last_full_backup_lsn_ = 0;
  uint64_t last_full_backup_scn_ = 0;
  std::string full_backup_id_;
  uint64_t pump_size_ = 0;
  std::string pump_checksum_;
};

/// A logical backup: one record of the catalog "oscar". seq and minor_resource_id name its archive in the
/// pool; the first piece is the stored file, the first storage its pool.
class Oscar_Backup_Set : public Backup_Set
{
public:
  kestrel::Backup_Record record() const override;

  /// One dump file. The level ("table", "schema" or "database") follows from the names: a file with a table
  /// is of level "table", with a schema only of level "schema". `file` is the path under which the archive
  /// recorded it, `size` its bytes, `checksum` what the archive says (XXH3-128 in hex, may stay empty).
  void add_file(const std::string& database, const std::string& schema, const std::string& table,
                const std::string& file, uint64_t size = 0, const std::string& checksum = std::string());
  void set_tablespaces(const json_spirit::Array& value) { tablespaces_ = value; }
  const json_spirit::Array& tablespaces() const { return tablespaces_; }

  void set_type(const std::string& value) { type_ = value; }
  const std::string& type() const { return type_; }
  void set_seq(uint64_t value) { seq_ = value; }
  uint64_t seq() const { return seq_; }
  void set_dbinstance(const std::string& value) { dbinstance_ = value; }
  const std::string& dbinstance() const { return dbinstance_; }

private:
  std::string type_;
  uint64_t seq_ = 0;
  std::string dbinstance_;
  json_spirit::Array tablespaces_;
  std::vector<kestrel::Backup_Record::File> files_;
};

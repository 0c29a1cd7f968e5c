#pragma once

#include "jobs/job_document.h"

#include <cstdint>
#include <string>

class YAJL_Gen;

namespace oscar
{
/// Which backup a restore job takes, and where it puts it.
/// Threads: immutable while a job uses it.
class Restore_Job_Source : public Job_Source
{
public:
  /// The object as it was backed up.
  struct original {
    std::string database;
    std::string schema;
    std::string table;
    std::string backup_file; // the dump file that holds it
  };

  /// Where it goes: without a database to where it came from; with one, the names count as they are, so that an
  /// empty schema is a whole database.
  struct restore_as {
    std::string database;
    std::string schema;
    std::string table;
  };

  int generate(yajl_gen_t* gen) const override;

  /// The host whose backup is restored.
  const std::string& backup_host_id() const { return backup_host_id_; }
  void backup_host_id(std::string value) { backup_host_id_ = std::move(value); }
  /// The backup job definition that made it.
  const std::string& backup_definition_id() const { return backup_definition_id_; }
  void backup_definition_id(std::string value) { backup_definition_id_ = std::move(value); }
  /// The backup set.
  const std::string& catalog_id() const { return catalog_id_; }
  void catalog_id(std::string value) { catalog_id_ = std::move(value); }
  /// The number of the backup among those of its definition.
  uint64_t seq() const { return seq_; }
  void seq(uint64_t value) { seq_ = value; }
  const std::string& pool_uuid() const { return pool_uuid_; }
  void pool_uuid(std::string value) { pool_uuid_ = std::move(value); }
  const struct original& original() const { return original_; }
  struct original& original() { return original_; }
  const struct restore_as& restore_as() const { return restore_as_; }
  struct restore_as& restore_as() { return restore_as_; }

private:
  void generate_original(YAJL_Gen& out) const;
  void generate_restore_as(YAJL_Gen& out) const;

  std::string backup_host_id_;
  std::string backup_definition_id_;
  std::string catalog_id_;
  uint64_t seq_ = 0;
  std::string pool_uuid_;
  struct original original_;
  struct restore_as restore_as_;
};
} // namespace oscar

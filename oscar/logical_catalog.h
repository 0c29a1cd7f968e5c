#pragma once

#include "oscar/restore_job_source.h"
#include "oscar/utils_export.h"
#include "json/value.h"

#include <cstdint>
#include <string>
#include <vector>

namespace oscar
{
/// What the catalog tells of one logical backup, as a restore needs it.
/// Errors: the functions throw std::runtime_error with a text for the log where a row has not the shape that
///         it must have.
struct Logical_Backup {
  /// A dump file; what an entry does not record counts as anything.
  struct File : Oscar_Backup_File {
    bool any_schema = false;
    bool any_table = false;
  };

  std::vector<File> files;
  std::string uuid;
  std::string definition_uuid;
  std::string pool_uuid;
  std::string host_uuid;         // may be empty
  std::string minor_resource_id; // may be empty
  uint64_t seq = 0;
};

/// The level of an object, as the catalog is asked for it: "table", "schema" or "database".
const char* object_grade(const struct Restore_Job_Source::original& object);

/// The row that a restore job means, out of the newest first: the one of its catalog id; without one the
/// first that holds the object and has the number (and definition) that the job gives. Null when there is no
/// such row. A row that cannot be read counts as holding it: reading it tells what is wrong.
const json_spirit::Object* choose_logical_row(const json_spirit::Array& rows,
                                              const Restore_Job_Source& source);

Logical_Backup read_logical_backup(const json_spirit::Object& row);

/// The dump file to import: the one that the object names, else the first of the object. Null when there is
/// none.
const Oscar_Backup_File* choose_backup_file(const Logical_Backup& backup,
                                            const struct Restore_Job_Source::original& object);
} // namespace oscar

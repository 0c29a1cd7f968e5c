#include "oscar/logical_catalog.h"

#include "json/json_util.h"

#include <stdexcept>

namespace oscar
{
namespace
{
using json_spirit::Object;
using json_spirit::Value;

/// Whether the member has this text; a row whose member is missing or of another kind has not.
bool has_text(const Object& row, const char* key, const std::string& text)
{
  const Value& value = json_spirit::find_value(row, key);
  return value.type() == json_spirit::str_type && value.get_str() == text;
}

bool has_number(const Object& row, const char* key, uint64_t number)
{
  const Value& value = json_spirit::find_value(row, key);
  return value.type() == json_spirit::int_type && value.get_uint64() == number;
}

Logical_Backup::File read_file(const Value& value)
{
  const Object& entry = value.get_obj();
  Logical_Backup::File file;
  file.database = kestrel::required<std::string>(entry, "database");
  file.file = kestrel::required<std::string>(entry, "file");
  // An entry that does not say which object it holds is known by its database alone.
  file.any_schema = !kestrel::optional(entry, "schema", file.schema);
  file.any_table = !kestrel::optional(entry, "table", file.table);
  return file;
}

bool holds(const Logical_Backup::File& file, const struct Restore_Job_Source::original& object)
{
  // A table counts only with its schema.
  const std::string table = object.schema.empty() ? std::string() : object.table;
  return file.database == object.database && (file.any_schema || file.schema == object.schema) &&
         (file.any_table || file.table == table);
}
} // namespace

const char* object_grade(const struct Restore_Job_Source::original& object)
{
  if (object.schema.empty())
    return "database";
  return object.table.empty() ? "schema" : "table";
}

namespace
{
// The catalog was asked for a database and a level: the set may hold other schemas and tables than the
// wanted.
bool may_hold(const Object& row, const struct Restore_Job_Source::original& object)
{
  try {
    return choose_backup_file(read_logical_backup(row), object) != nullptr;
  } catch (const std::exception&) {
    return true;
  }
}

bool is_meant(const Object& row, const Restore_Job_Source& source)
{
  if (!source.catalog_id().empty())
    return has_text(row, "uuid", source.catalog_id());
  if (source.seq() != 0 && !has_number(row, "seq", source.seq()))
    return false;
  if (source.seq() != 0 && !source.backup_definition_id().empty() &&
      !has_text(row, "definition_uuid", source.backup_definition_id()))
    return false;
  return may_hold(row, source.original());
}
} // namespace

const Object* choose_logical_row(const json_spirit::Array& rows, const Restore_Job_Source& source)
{
  for (const Value& row : rows)
    if (row.type() == json_spirit::obj_type && is_meant(row.get_obj(), source))
      return &row.get_obj();
  return nullptr;
}

Logical_Backup read_logical_backup(const Object& row)
{
  std::string damage;
  kestrel::optional(row, "unreadable", damage);
  if (!damage.empty())
    throw std::runtime_error("the record of backup " + kestrel::required<std::string>(row, "uuid") +
                             " is damaged: " + damage + ". Put back a saved copy of the catalog");
  Logical_Backup backup;
  for (const Value& file : kestrel::required<json_spirit::Array>(row, "backup_files"))
    backup.files.push_back(read_file(file));
  backup.pool_uuid = kestrel::required<std::string>(row, "pool_uuid");
  backup.definition_uuid = kestrel::required<std::string>(row, "definition_uuid");
  backup.uuid = kestrel::required<std::string>(row, "uuid");
  backup.seq = kestrel::required<uint64_t>(row, "seq");
  kestrel::optional(row, "host_uuid", backup.host_uuid);
  kestrel::optional(row, "minor_resource_id", backup.minor_resource_id);
  return backup;
}

const Oscar_Backup_File* choose_backup_file(const Logical_Backup& backup,
                                            const struct Restore_Job_Source::original& object)
{
  for (const Logical_Backup::File& file : backup.files)
    if (!object.backup_file.empty() && file.file == object.backup_file)
      return &file;
  for (const Logical_Backup::File& file : backup.files)
    if (holds(file, object))
      return &file;
  return nullptr;
}
} // namespace oscar

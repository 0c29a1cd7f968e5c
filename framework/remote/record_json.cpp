#include "remote/record_json.h"

#include "json/json_util.h"

namespace kestrel
{
namespace
{
using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;

Object file_json(const Backup_Record::File& file)
{
  return {{"database", file.database}, {"schema", file.schema}, {"table", file.table},
          {"file", file.file},         {"grade", file.grade},   {"size", file.size},
          {"checksum", file.checksum}};
}

Backup_Record::File file_from(const Object& object)
{
  Backup_Record::File file;
  file.database = required<std::string>(object, "database");
  file.schema = required<std::string>(object, "schema");
  file.table = required<std::string>(object, "table");
  file.file = required<std::string>(object, "file");
  file.grade = required<std::string>(object, "grade");
  file.size = required<uint64_t>(object, "size");
  file.checksum = required<std::string>(object, "checksum");
  return file;
}
} // namespace

Object backup_record_json(const Backup_Record& record)
{
  Object fields;
  for (const auto& [name, value] : record.fields)
    fields.emplace_back(name, value);
  Array storages, pieces, files;
  for (const Backup_Record::Storage& storage : record.storages)
    storages.push_back(Object{{"pool_uuid", storage.pool_uuid}, {"size", storage.size}});
  for (const Backup_Record::Piece& piece : record.pieces)
    pieces.push_back(Object{{"name", piece.name}, {"size", piece.size}});
  for (const Backup_Record::File& file : record.files)
    files.push_back(file_json(file));
  return {{"catalog", record.catalog},
          {"fields", std::move(fields)},
          {"storages", std::move(storages)},
          {"pieces", std::move(pieces)},
          {"files", std::move(files)}};
}

Backup_Record backup_record_from(const Value& value)
{
  const Object& object = value.get_obj();
  Backup_Record record;
  record.catalog = required<std::string>(object, "catalog");
  for (const json_spirit::Pair& field : required<Object>(object, "fields"))
    record.fields.emplace(field.name_, field.value_);
  for (const Value& each : required<Array>(object, "storages"))
    record.storages.push_back(
        {required<std::string>(each.get_obj(), "pool_uuid"), required<uint64_t>(each.get_obj(), "size")});
  for (const Value& each : required<Array>(object, "pieces"))
    record.pieces.push_back(
        {required<std::string>(each.get_obj(), "name"), required<uint64_t>(each.get_obj(), "size")});
  for (const Value& each : required<Array>(object, "files"))
    record.files.push_back(file_from(each.get_obj()));
  return record;
}

Object pool_json(const Pool_Info& pool)
{
  return {
      {"id", pool.pool_id}, {"name", pool.name}, {"path", pool.storage_path}, {"back_end", pool.back_end}};
}

Pool_Info pool_from(const Value& value)
{
  const Object& object = value.get_obj();
  Pool_Info pool;
  pool.pool_id = required<std::string>(object, "id");
  pool.name = required<std::string>(object, "name");
  pool.storage_path = required<std::string>(object, "path");
  optional(object, "back_end", pool.back_end);
  return pool;
}
} // namespace kestrel

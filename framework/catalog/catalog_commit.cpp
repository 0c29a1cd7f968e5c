#include "catalog/catalog_commit.h"

#include "catalog/catalog_rows.h"
#include "json/json_util.h"

#include <stdexcept>

namespace kestrel
{
namespace
{
std::invalid_argument unfit(const std::string& field, const std::string& why)
{
  return std::invalid_argument("The backup set cannot be recorded: its field '" + field + "' " + why);
}

void execute_insert(soci::session& session, const std::string& table, const std::vector<std::string>& columns,
                    std::vector<Sql_Value> values)
{
  std::string names, places;
  for (size_t i = 0; i < columns.size(); ++i) {
    names += (i ? ", " : "") + columns[i];
    places += (i ? ", :v" : ":v") + std::to_string(i);
  }
  soci::statement statement(session);
  statement.alloc();
  statement.prepare("INSERT INTO " + table + " (" + names + ") VALUES (" + places + ")");
  bind_values(statement, values);
  statement.define_and_bind();
  statement.execute(true);
}

Sql_Value text_value(const std::string& text)
{
  return {true, text, 0};
}

Sql_Value number_value(uint64_t number)
{
  return {false, std::string(), static_cast<long long>(number)};
}
} // namespace

Commit_Row::Commit_Row(const Backup_Record& record) : record_(record), catalog_(catalog_bit(record.catalog))
{
  if (catalog_ == 0)
    throw std::invalid_argument("There is no catalog '" + record.catalog + "'");
  add_text("catalog", record.catalog);
  for (const auto& [name, value] : record.fields)
    add_field(name, value);
  uuid_ = field_text("uuid");
  if (uuid_.empty())
    throw unfit("uuid", "is empty");
  resource_uuid_ = field_text("resource_uuid");
  if (!field_text("state_reason").empty())
    add_text("state", "unavailable");
  if (!record.storages.empty()) {
    add_text("pool_uuid", record.storages.front().pool_uuid);
    add_number("backup_set_storage_size", record.storages.front().size);
  }
  if (!record.pieces.empty() && record.fields.find("backup_file") == record.fields.end())
    add_text("backup_file", record.pieces.front().name);
  if (catalog_ == brcmd_catalog)
    find_predecessor();
}

void Commit_Row::add_text(const char* column, const std::string& text)
{
  columns_.push_back(column);
  values_.push_back(text_value(text));
}

void Commit_Row::add_number(const char* column, uint64_t number)
{
  columns_.push_back(column);
  values_.push_back(number_value(number));
}

void Commit_Row::add_field(const std::string& name, const json_spirit::Value& value)
{
  const Catalog_Field* field = find_catalog_field(catalog_, name);
  if (!field || !field->committed || name != field->name)
    throw unfit(name, "is not known to the catalog '" + record_.catalog + "'");
  if (field->kind == Field_Kind::json)
    add_text(field->name, write_json(value));
  else if (field->kind == Field_Kind::text) {
    if (value.type() != json_spirit::str_type)
      throw unfit(name, "is not a text");
    add_text(field->name, value.get_str());
  } else {
    if (value.type() != json_spirit::int_type)
      throw unfit(name, "is not an integer");
    add_number(field->name, value.get_uint64());
  }
}

std::string Commit_Row::field_text(const char* name) const
{
  const auto found = record_.fields.find(name);
  return found == record_.fields.end() ? std::string() : found->second.get_str();
}

// A differential backup holds everything since the full one, so it does not need what was taken in between.
void Commit_Row::find_predecessor()
{
  if (field_text("backup_id").empty())
    throw unfit("backup_id", "is empty");
  const std::string type = field_text("type");
  if (type == "full")
    return;
  if (type != "incr" && type != "diff")
    throw unfit("type", "is '" + type + "' and not one of full, incr, diff");
  const char* link = type == "incr" ? "last_backup_id" : "last_full_backup_id";
  predecessor_id_ = field_text(link);
  if (predecessor_id_.empty())
    throw unfit(link, "is empty, but the set is not a full backup");
  add_text("predecessor_id", predecessor_id_);
}

bool Commit_Row::predecessor_missing(soci::session& session) const
{
  if (predecessor_id_.empty())
    return false;
  long long known = 0;
  session << "SELECT count(*) FROM backup_set WHERE catalog = :c AND backup_id = :p AND resource_uuid = :r",
      soci::use(record_.catalog, "c"), soci::use(predecessor_id_, "p"), soci::use(resource_uuid_, "r"),
      soci::into(known);
  return known == 0;
}

void flag_children(soci::session& session, const std::string& resource_uuid, const std::string& backup_id,
                   bool predecessor_missing)
{
  const int flag = predecessor_missing;
  session << "UPDATE backup_set SET predecessor_missing = :f WHERE catalog = 'oscar_brcmd' AND "
             "predecessor_id = :p AND resource_uuid = :r",
      soci::use(flag, "f"), soci::use(backup_id, "p"), soci::use(resource_uuid, "r");
}

bool Commit_Row::is_recorded(soci::session& session) const
{
  long long known = 0;
  session << "SELECT count(*) FROM backup_set WHERE uuid = :u AND catalog = :c AND resource_uuid = :r",
      soci::use(uuid_, "u"), soci::use(record_.catalog, "c"), soci::use(resource_uuid_, "r"),
      soci::into(known);
  return known != 0;
}

bool Commit_Row::is_archive_recorded(soci::session& session) const
{
  const auto seq = record_.fields.find("seq");
  if (catalog_ != logical_catalog || seq == record_.fields.end() || record_.storages.empty())
    return false;
  const std::string minor_id = field_text("minor_resource_id");
  const long long number = seq->second.get_int64();
  long long known = 0;
  if (number != 0)
    session << "SELECT count(*) FROM backup_set WHERE minor_resource_id = :m AND seq = :s AND pool_uuid = :p"
               " AND seq <> 0",
        soci::use(minor_id, "m"), soci::use(number, "s"), soci::use(record_.storages.front().pool_uuid, "p"),
        soci::into(known);
  return known != 0;
}

bool Commit_Row::insert(soci::session& session) const
{
  const bool missing = predecessor_missing(session);
  std::vector<std::string> columns = columns_;
  std::vector<Sql_Value> values = values_;
  columns.push_back("predecessor_missing");
  values.push_back(number_value(missing));
  execute_insert(session, "backup_set", columns, values);
  if (catalog_ == brcmd_catalog)
    flag_children(session, resource_uuid_, field_text("backup_id"), false);

  long long id = 0;
  session << "SELECT id FROM backup_set WHERE uuid = :u AND catalog = :c AND resource_uuid = :r",
      soci::use(uuid_, "u"), soci::use(record_.catalog, "c"), soci::use(resource_uuid_, "r"), soci::into(id);
  const Sql_Value set_id = {false, std::string(), id};
  for (size_t i = 0; i < record_.storages.size(); ++i)
    execute_insert(session, "backup_set_storage", {"set_id", "position", "pool_uuid", "size"},
                   {set_id, number_value(i), text_value(record_.storages[i].pool_uuid),
                    number_value(record_.storages[i].size)});
  for (size_t i = 0; i < record_.pieces.size(); ++i)
    execute_insert(
        session, "backup_set_piece", {"set_id", "position", "name", "size"},
        {set_id, number_value(i), text_value(record_.pieces[i].name), number_value(record_.pieces[i].size)});
  for (size_t i = 0; i < record_.files.size(); ++i) {
    const Backup_Record::File& file = record_.files[i];
    execute_insert(session, "backup_set_file",
                   {"set_id", "position", "database_name", "schema_name", "table_name", "file_name", "grade",
                    "size", "checksum"},
                   {set_id, number_value(i), text_value(file.database), text_value(file.schema),
                    text_value(file.table), text_value(file.file), text_value(file.grade),
                    number_value(file.size), text_value(file.checksum)});
  }
  return missing;
}
} // namespace kestrel

#include "agent/export_catalog.h"

#include "agent/catalog_view.h"

#include <exception>

namespace kestrel
{
namespace
{
Export_File file_of(const json_spirit::Object& row)
{
  Export_File file;
  file.database = value_or_default<std::string>(row, "database");
  file.schema = value_or_default<std::string>(row, "schema");
  file.table = value_or_default<std::string>(row, "table");
  file.grade = value_or_default<std::string>(row, "grade");
  file.path = required<std::string>(row, "file");
  file.checksum = value_or_default<std::string>(row, "checksum");
  file.size = number_of_row(row, "size");
  return file;
}

void fill_entry(const json_spirit::Object& row, Export_Entry& entry)
{
  // First what a list needs, also of a record that is damaged further on.
  entry.id = required<std::string>(row, "uuid");
  entry.resource_uuid = value_or_default<std::string>(row, "resource_uuid");
  entry.start_time = static_cast<time_t>(value_or_default<int64_t>(row, "start_time"));
  entry.name = value_or_default<std::string>(row, "name");
  entry.definition_uuid = value_or_default<std::string>(row, "definition_uuid");
  entry.host_uuid = value_or_default<std::string>(row, "host_uuid");
  entry.minor_resource_id = value_or_default<std::string>(row, "minor_resource_id");
  entry.pool_uuid = value_or_default<std::string>(row, "pool_uuid");
  entry.file = value_or_default<std::string>(row, "backup_file");
  entry.instance = value_or_default<std::string>(row, "dbinstance");
  entry.compression = value_or_default<std::string>(row, "compression");
  entry.original_checksum = value_or_default<std::string>(row, "original_checksum");
  entry.storage_checksum = value_or_default<std::string>(row, "storage_checksum");
  entry.seq = number_of_row(row, "seq");
  entry.size = number_of_row(row, "backup_set_size");
  entry.stored_size = number_of_row(row, "backup_set_storage_size");
  entry.files_size = number_of_row(row, "total_size");
  entry.end_time = static_cast<time_t>(value_or_default<int64_t>(row, "end_time"));
  entry.available = !value_or_default<json_spirit::Array>(row, "state").empty();
  entry.state_reason = value_or_default<std::string>(row, "state_reason");
  entry.deleting = value_or_default<bool>(row, "deletion_begun");
  for (const json_spirit::Value& name : value_or_default<json_spirit::Array>(row, "tablespaces"))
    entry.tablespaces.push_back(name.get_str());
  for (const json_spirit::Value& file : value_or_default<json_spirit::Array>(row, "backup_files"))
    entry.files.push_back(file_of(file.get_obj()));
}

bool query_exports(Catalog_View_Query query, std::vector<Export_Entry>& backups, std::string& error)
{
  query["with_files"] = true;
  try {
    json_spirit::Object answer;
    if (!query_catalog("oscar", "catalogs", query, answer, error))
      return false;
    backups = entries_of(answer, fill_entry);
    return true;
  } catch (const std::exception& exception) {
    error = std::string("the catalog gave an answer of the wrong shape: ") + exception.what();
    return false;
  }
}
} // namespace

bool list_exports(const std::map<std::string, json_spirit::Value>& fields, uint64_t limit,
                  std::vector<Export_Entry>& backups, std::string& error)
{
  Catalog_View_Query query = fields;
  query["sort"] = "start_time";
  query["order"] = "desc";
  if (limit)
    query["limit"] = limit;
  return query_exports(query, backups, error);
}

bool last_committed_export(const std::string& resource_uuid, std::vector<Export_Entry>& backup,
                           std::string& error)
{
  // Without a sort key the rows stand in commit order.
  return query_exports({{"resource_uuid", resource_uuid}, {"order", "desc"}, {"limit", 1}}, backup, error);
}

bool find_exports(const std::string& reference, std::vector<Export_Entry>& backups, std::string& error)
{
  if (reference == "latest")
    return list_exports({}, 1, backups, error);
  std::vector<Export_Entry> found;
  if (!list_exports({{"uuid", reference}}, 0, found, error))
    return false;
  std::vector<Export_Entry> all;
  if (found.empty() && !reference.empty() && !list_exports({}, 0, all, error))
    return false;
  for (Export_Entry& backup : all)
    if (backup.id.compare(0, reference.size(), reference) == 0)
      found.push_back(std::move(backup));
  backups.swap(found);
  return true;
}
} // namespace kestrel

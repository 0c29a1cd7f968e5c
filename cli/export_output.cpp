#include "cli/export_output.h"

#include "agent/backup_catalog.h"
#include "cli/backup_output.h"
#include "cli/text_format.h"
#include "json/json_util.h"

namespace kestrel
{
namespace
{
const size_t shown_objects = 3;

const char* state_of(const Export_Entry& entry)
{
  return entry.available ? "available" : "unusable";
}

/// The first objects, and how many more there are.
std::string objects_text(const Export_Entry& entry)
{
  std::string text;
  for (size_t i = 0; i < entry.files.size() && i < shown_objects; ++i)
    text += (i ? " " : "") + object_text(object_of(entry, entry.files[i]));
  if (entry.files.size() > shown_objects)
    text += " +" + std::to_string(entry.files.size() - shown_objects);
  return text;
}

std::string instance_of(Command_Context& context, const Export_Entry& entry)
{
  return entry.instance.empty() ? context.instance_name(entry.resource_uuid) : entry.instance;
}
} // namespace

Object_Path object_of(const Export_Entry& entry, const Export_File& file)
{
  return {entry.instance, file.database, file.schema, file.table};
}

json_spirit::Object json_of_export(Command_Context& context, const Export_Entry& entry)
{
  json_spirit::Array objects;
  for (const Export_File& file : entry.files) {
    const Object_Path path = object_of(entry, file);
    json_spirit::Object object;
    set_value(object, "object", object_text(path));
    set_value(object, "level", object_level(path));
    set_value(object, "database", file.database);
    set_value(object, "schema", file.schema);
    set_value(object, "table", file.table);
    set_value(object, "dump_file", file.path);
    set_value(object, "size", file.size);
    set_value(object, "checksum", file.checksum);
    objects.push_back(object);
  }
  json_spirit::Object json;
  set_value(json, "id", entry.id);
  set_value(json, "instance", instance_of(context, entry));
  set_value(json, "resource_uuid", entry.resource_uuid);
  set_value(json, "level", "export");
  set_value(json, "number", entry.seq);
  set_value(json, "state", state_of(entry));
  set_value(json, "state_reason", entry.state_reason);
  set_value(json, "start_time", format_time_rfc3339(entry.start_time));
  set_value(json, "end_time", format_time_rfc3339(entry.end_time));
  set_value(json, "source_size", entry.files_size);
  set_value(json, "size", entry.size);
  set_value(json, "stored_size", entry.stored_size);
  set_value(json, "compression", entry.compression);
  set_value(json, "pool", pool_name(context, entry.pool_uuid));
  set_value(json, "pool_uuid", entry.pool_uuid);
  set_value(json, "folder", entry.minor_resource_id);
  set_value(json, "file", entry.file);
  set_value(json, "original_checksum", entry.original_checksum);
  set_value(json, "storage_checksum", entry.storage_checksum);
  set_value(json, "tablespaces", json_spirit::Array(entry.tablespaces.begin(), entry.tablespaces.end()));
  set_value(json, "objects", objects);
  return json;
}

std::string table_of_exports(const std::vector<Export_Entry>& exports)
{
  std::vector<std::vector<std::string>> rows = {{"EXPORT", "TIME", "SIZE", "STORED", "STATE", "OBJECTS"}};
  for (const Export_Entry& entry : exports)
    rows.push_back({entry.id, format_time(entry.start_time).substr(0, 16), format_bytes(entry.size),
                    format_bytes(entry.stored_size), entry.available ? "ok" : "unusable",
                    objects_text(entry)});
  return format_table(rows, {2, 3});
}

std::string text_of_export(Command_Context& context, const Export_Entry& entry)
{
  const std::string problem = entry.state_reason.empty() ? "" : " (" + entry.state_reason + ")";
  std::string tablespaces;
  for (const std::string& name : entry.tablespaces)
    tablespaces += (tablespaces.empty() ? "" : ", ") + name;
  std::vector<std::vector<std::string>> rows = {
      {"Export", entry.id},
      {"Instance", instance_of(context, entry)},
      {"Number", std::to_string(entry.seq)},
      {"State", state_of(entry) + problem},
      {"Begun", format_time(entry.start_time)},
      {"Ended", format_time(entry.end_time)},
      {"Size", format_bytes(entry.size) + " (" + std::to_string(entry.size) + " bytes)"},
      {"Stored", format_bytes(entry.stored_size) + " (" + std::to_string(entry.stored_size) + " bytes)"},
      {"Ratio", format_ratio(entry.size, entry.stored_size) + " (" + entry.compression + ")"},
      {"Checksum", entry.original_checksum + " (archive, XXH3-128)"},
      {"", entry.storage_checksum + " (as stored)"},
      {"Pool", pool_name(context, entry.pool_uuid)},
      {"File", entry.minor_resource_id + "/" + entry.file},
      {"Tablespaces", tablespaces.empty() ? "none of its users'" : tablespaces}};
  for (const Export_File& file : entry.files) {
    const Object_Path path = object_of(entry, file);
    rows.push_back({&file == &entry.files.front() ? "Objects" : "",
                    object_text(path) + " (" + object_level(path) + ", " + format_bytes(file.size) + ")"});
  }
  return format_table(rows);
}

bool find_export(Command_Context& context, const std::string& reference, Export_Entry& entry)
{
  std::vector<Export_Entry> found;
  std::string error;
  if (!find_exports(reference, found, error)) {
    context.fail("the exports cannot be listed: " + error);
    return false;
  }
  if (found.size() == 1) {
    entry = found.front();
    return true;
  }
  std::vector<Backup_Entry> physical;
  if (!found.empty())
    error = std::to_string(found.size()) + " exports begin with " + reference + "; give more of the id";
  else if (reference == "latest")
    error = "there is no export yet; make one: kestrel export OBJECT";
  else if (list_backups({{"uuid", reference}}, 1, physical, error) && !physical.empty())
    error = reference + " is a physical backup; bring it back with: kestrel restore " + reference;
  else
    error = "there is no export " + reference + "; kestrel backups lists them";
  context.fail(error);
  return false;
}

bool means_export(const std::string& reference, Export_Entry& entry)
{
  std::vector<Export_Entry> found;
  std::string error;
  if (reference == "latest" || !find_exports(reference, found, error) || found.size() != 1)
    return false;
  Backup_Entry physical;
  if (found.front().id != reference && resolve_backup(reference, "", physical, error))
    return false;
  entry = found.front();
  return true;
}
} // namespace kestrel

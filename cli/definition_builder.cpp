#include "cli/definition_builder.h"

#include "base/uuid.h"
#include "json/json_util.h"

namespace kestrel
{
namespace
{
/// `id_kind` keeps the ids of different kinds of jobs on one instance apart.
json_spirit::Object common_definition(const Host_Identity& identity, const std::string& id_kind,
                                      const std::string& kind, const std::string& instance_uuid,
                                      const std::string& name, const std::string& pool_id)
{
  json_spirit::Object target;
  set_value(target, "id", pool_id);
  json_spirit::Object definition;
  set_value(definition, "id", name_uuid("kestrel " + id_kind + " " + instance_uuid));
  set_value(definition, "uid", identity.user_id);
  set_value(definition, "name", name);
  set_value(definition, "agent", "kestrel");
  set_value(definition, "host_id", identity.host_id);
  set_value(definition, "type", kind);
  set_value(definition, "target", target);
  return definition;
}

void put_rate_limit(uint64_t write_bytes_per_second, json_spirit::Object& definition)
{
  if (write_bytes_per_second == 0)
    return;
  json_spirit::Object limits;
  set_value(limits, "write", write_bytes_per_second);
  set_value(definition, "rate_limits", limits);
}

json_spirit::Object names_of(const Object_Path& path)
{
  json_spirit::Object names;
  set_value(names, "database", path.database);
  if (!path.schema.empty())
    set_value(names, "schema", path.schema);
  if (!path.table.empty())
    set_value(names, "table", path.table);
  return names;
}
} // namespace

std::string backup_definition(const Host_Identity& identity, const Backup_Request& request)
{
  json_spirit::Object source;
  set_value(source, "id", request.instance_uuid);
  set_value(source, "name", request.instance_name);
  set_value(source, "entries", json_spirit::Array{"oscar/" + encode_object_name(request.instance_name)});
  json_spirit::Object options;
  set_value(options, "compression", request.compression);
  set_value(options, "compression_level", request.compression_level);

  json_spirit::Object definition = common_definition(identity, "backup", "backup", request.instance_uuid,
                                                     request.instance_name, request.pool_id);
  set_value(definition, "subtype", request.level);
  set_value(definition, "source", source);
  set_value(definition, "options", options);
  put_rate_limit(request.rate_limit_bytes_per_second, definition);
  return write_json_pretty(definition);
}

std::string restore_definition(const Host_Identity& identity, const Restore_Request& request)
{
  json_spirit::Object source;
  set_value(source, "id", request.resource_uuid);
  set_value(source, "name", request.instance_name);
  set_value(source, "catalog_id", request.backup_id);
  if (!request.pool_override.empty())
    set_value(source, "pool_uuid", request.pool_override);

  json_spirit::Object definition = common_definition(identity, "restore", "restore", request.resource_uuid,
                                                     request.instance_name, request.pool_id);
  set_value(definition, "subtype", "full");
  set_value(definition, "source", source);
  set_value(definition, "options", json_spirit::Object());
  return write_json_pretty(definition);
}

std::string export_definition(const Host_Identity& identity, const Export_Request& request)
{
  json_spirit::Array entries;
  for (const Object_Path& object : request.objects)
    entries.push_back("oscar/" + object_text(object));
  json_spirit::Object source;
  set_value(source, "id", request.instance_uuid);
  set_value(source, "name", request.instance_name);
  set_value(source, "entries", entries);
  json_spirit::Object options;
  set_value(options, "compression", request.compression);
  set_value(options, "compression_level", request.compression_level);

  json_spirit::Object definition = common_definition(identity, "export", "backup", request.instance_uuid,
                                                     request.instance_name, request.pool_id);
  set_value(definition, "subtype", "export");
  set_value(definition, "source", source);
  set_value(definition, "options", options);
  put_rate_limit(request.rate_limit_bytes_per_second, definition);
  return write_json_pretty(definition);
}

std::string import_definition(const Host_Identity& identity, const Import_Request& request)
{
  json_spirit::Object original = names_of(request.original);
  set_value(original, "backup_file", request.dump_file);
  json_spirit::Object target = names_of(request.target);
  // The job addresses the instance by this name.
  set_value(target, "database", request.target.instance);
  json_spirit::Object source;
  set_value(source, "id", request.resource_uuid);
  set_value(source, "name", request.target.instance);
  set_value(source, "catalog_id", request.export_id);
  if (!request.pool_override.empty())
    set_value(source, "pool_uuid", request.pool_override);
  set_value(source, "original", original);
  set_value(source, "restore_as", target);

  json_spirit::Object definition = common_definition(identity, "import", "restore", request.target_uuid,
                                                     request.target.instance, request.pool_id);
  set_value(definition, "subtype", "import");
  set_value(definition, "source", source);
  set_value(definition, "options", json_spirit::Object());
  return write_json_pretty(definition);
}
} // namespace kestrel

#include "cli/definition_builder.h"

#include "base/uuid.h"
#include "json/json_util.h"

namespace kestrel
{
namespace
{
/// Entries are slash-separated and percent-decoded.
std::string encode_segment(const std::string& name)
{
  static const char* const digits = "0123456789ABCDEF";
  std::string encoded;
  for (const char byte : name) {
    if (byte == '/' || byte == '%') {
      encoded += '%';
      encoded += digits[static_cast<unsigned char>(byte) >> 4];
      encoded += digits[static_cast<unsigned char>(byte) & 15];
    } else {
      encoded += byte;
    }
  }
  return encoded;
}

json_spirit::Object common_definition(const Host_Identity& identity, const std::string& kind,
                                      const std::string& instance_uuid, const std::string& name,
                                      const std::string& pool_id)
{
  json_spirit::Object target;
  set_value(target, "id", pool_id);
  json_spirit::Object definition;
  set_value(definition, "id", name_uuid("kestrel " + kind + " " + instance_uuid));
  set_value(definition, "uid", identity.user_id);
  set_value(definition, "name", name);
  set_value(definition, "agent", "kestrel");
  set_value(definition, "host_id", identity.host_id);
  set_value(definition, "type", kind);
  set_value(definition, "target", target);
  return definition;
}
} // namespace

std::string backup_definition(const Host_Identity& identity, const Backup_Request& request)
{
  json_spirit::Object source;
  set_value(source, "id", request.instance_uuid);
  set_value(source, "name", request.instance_name);
  set_value(source, "entries", json_spirit::Array{"oscar/" + encode_segment(request.instance_name)});
  json_spirit::Object options;
  set_value(options, "compression", request.compression);
  set_value(options, "compression_level", request.compression_level);

  json_spirit::Object definition =
      common_definition(identity, "backup", request.instance_uuid, request.instance_name, request.pool_id);
  set_value(definition, "subtype", request.level);
  set_value(definition, "source", source);
  set_value(definition, "options", options);
  if (request.rate_limit_bytes_per_second) {
    json_spirit::Object limits;
    set_value(limits, "write", request.rate_limit_bytes_per_second);
    set_value(definition, "rate_limits", limits);
  }
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

  json_spirit::Object definition =
      common_definition(identity, "restore", request.resource_uuid, request.instance_name, request.pool_id);
  set_value(definition, "subtype", "full");
  set_value(definition, "source", source);
  set_value(definition, "options", json_spirit::Object());
  return write_json_pretty(definition);
}
} // namespace kestrel

#include "rpc/json_rpc_request_parts.h"

#include <utility>

namespace kestrel
{
namespace
{
bool is_id(const json_spirit::Value& value)
{
  switch (value.type()) {
  case json_spirit::str_type:
  case json_spirit::int_type:
  case json_spirit::real_type:
  case json_spirit::null_type:
    return true;
  default:
    return false;
  }
}

json_spirit::Value* find_member(json_spirit::Object& object, const char* name)
{
  for (json_spirit::Pair& member : object)
    if (member.name_ == name)
      return &member.value_;
  return nullptr;
}
} // namespace

JSON_RPC_Request_Parts read_request_parts(json_spirit::Value& message)
{
  JSON_RPC_Request_Parts parts;
  if (message.type() != json_spirit::obj_type)
    return parts;
  json_spirit::Object& object = message.get_obj();
  json_spirit::Value* id = find_member(object, "id");
  if (id && is_id(*id))
    parts.id = *id;
  else if (id)
    return parts;
  parts.notification = !id;
  const json_spirit::Value& version = json_spirit::find_value(object, "jsonrpc");
  if (version.type() != json_spirit::str_type || version.get_str() != "2.0")
    return parts;
  json_spirit::Value* method = find_member(object, "method");
  if (!method || method->type() != json_spirit::str_type)
    return parts;
  if (json_spirit::Value* params = find_member(object, "params")) {
    if (params->type() != json_spirit::obj_type && params->type() != json_spirit::array_type &&
        !params->is_null())
      return parts;
    parts.params = std::move(*params);
  }
  parts.method = method->get_str();
  parts.valid = true;
  return parts;
}
} // namespace kestrel

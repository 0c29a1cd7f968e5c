#pragma once

#include "json/value.h"

#include <string>

namespace kestrel
{
/// The parts of one JSON-RPC 2.0 request object, or what is wrong with it.
struct JSON_RPC_Request_Parts {
  bool valid = false;
  bool notification = false;
  json_spirit::Value id;
  std::string method;
  json_spirit::Value params;
};

/// Takes a message apart; its params are moved out of it. An id that can be made out is given even when the
/// rest is wrong. Any thread.
JSON_RPC_Request_Parts read_request_parts(json_spirit::Value& message);
} // namespace kestrel

#include "rpc/json_rpc.h"

#include "json/json_util.h"
#include "json/wipe_json.h"

#include <ace/Log_Msg.h>

#include <exception>
#include <utility>

JSON_RPC_Object::~JSON_RPC_Object() = default;

JSON_RPC_Request::JSON_RPC_Request(json_spirit::Value id, std::string method, json_spirit::Value params)
    : id_(std::move(id)), method_(std::move(method)), params_(std::move(params))
{
}

JSON_RPC_Request::~JSON_RPC_Request()
{
  kestrel::wipe_json(params_);
}

JSON_RPC_Response::JSON_RPC_Response(const JSON_RPC_Request& request) : id_(request.id()) {}

JSON_RPC_Channel::~JSON_RPC_Channel() = default;

namespace
{
/// 0 or -1 as `send` has it; -1 too when there is no text.
template <class Make, class Send> int send_made(Make make, Send send)
{
  try {
    return send(make());
  } catch (const std::exception& failure) {
    ACE_ERROR((LM_ERROR, "(%P|%t) JSON_RPC_Channel: the answer cannot be sent: %C\n", failure.what()));
    return -1;
  }
}
} // namespace

int JSON_RPC_Channel::send_error(int code, const json_spirit::Value& id, const char* message,
                                 const json_spirit::Value& data)
{
  return send_made([&] { return kestrel::json_rpc_error_text(code, id, message, data); },
                   [this](const std::string& text) { return send_text(text); });
}

int JSON_RPC_Channel::send(JSON_RPC_Object_Ptr object)
{
  const JSON_RPC_Response* response = object.get() ? object->response() : nullptr;
  if (!response)
    return -1;
  const auto make = [&] {
    json_spirit::Object text;
    text.emplace_back("jsonrpc", "2.0");
    text.emplace_back("id", response->id());
    text.emplace_back("result", response->result());
    return kestrel::write_json(std::move(text));
  };
  return send_made(make, [this](const std::string& text) { return send_text(text); });
}

std::string kestrel::json_rpc_error_text(int code, const json_spirit::Value& id, const std::string& message,
                                         const json_spirit::Value& data)
{
  json_spirit::Object error;
  error.emplace_back("code", code);
  error.emplace_back("message", message);
  if (!data.is_null())
    error.emplace_back("data", data);
  json_spirit::Object text;
  text.emplace_back("jsonrpc", "2.0");
  text.emplace_back("id", id);
  text.emplace_back("error", std::move(error));
  return write_json(std::move(text));
}

JSON_RPC_Handler::~JSON_RPC_Handler() = default;

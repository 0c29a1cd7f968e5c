#pragma once

#include "rpc/json_rpc.h"

#include <cerrno>
#include <memory>
#include <new>

namespace oscar
{
constexpr int INVALID_PARAMS = -32602;
constexpr int INTERNAL_ERROR = -32603;

/// The answer to `request`; null with errno ENOMEM when there is no memory for one.
inline std::unique_ptr<JSON_RPC_Response> make_response(const JSON_RPC_Request& request)
{
  std::unique_ptr<JSON_RPC_Response> response(new (std::nothrow) JSON_RPC_Response(request));
  if (!response)
    errno = ENOMEM;
  return response;
}

inline int refuse(JSON_RPC_Channel& channel, const JSON_RPC_Request& request, int code, const char* message)
{
  return channel.send_error(code, request.id(), message, json_spirit::Value());
}

/// Sends the response. -1 with errno ENOMEM, and nothing sent, when there is no memory for its count of
/// references.
inline int answer(JSON_RPC_Channel& channel, std::unique_ptr<JSON_RPC_Response> response)
{
  try {
    const JSON_RPC_Object_Ptr object(response.get());
    response.release(); // it is the object's now
    return channel.send(object);
  } catch (const std::bad_alloc&) {
    errno = ENOMEM;
    return -1;
  }
}
} // namespace oscar

#include "rpc/json_restful_client.h"

#include "json/json_util.h"

#include <ace/Log_Msg.h>

#include <exception>
#include <mutex>
#include <utility>

namespace
{
std::mutex transport_mutex;
std::shared_ptr<kestrel::Upstream_Transport> current_transport;

std::shared_ptr<kestrel::Upstream_Transport> transport()
{
  const std::lock_guard<std::mutex> guard(transport_mutex);
  return current_transport;
}

bool refuse(const HTTP_Request& request, const std::string& cause)
{
  ACE_ERROR((LM_ERROR, "(%P|%t) request %C to the backup server failed: %C\n", request.path().c_str(),
             cause.c_str()));
  return false;
}
} // namespace

HTTP_Request::HTTP_Request(int kind, const char* path, bool identified)
    : kind_(kind), path_(path), identified_(identified)
{
}

JSON_RESTful_Client::~JSON_RESTful_Client() = default;

bool JSON_RESTful_Client::post(HTTP_Request& request, const json_spirit::Value* body,
                               json_spirit::Value* reply)
{
  try {
    Exchange_Result result;
    std::string cause;
    if (!exchange(request, body ? kestrel::write_json(*body) : std::string(), result, cause))
      return refuse(request, cause);
    if (result.status < 200 || result.status > 299)
      return refuse(request, "it answered with status " + std::to_string(result.status));
    json_spirit::Value answer;
    if (!kestrel::read_json(result.body, kestrel::json_network_limits(), answer, cause))
      return refuse(request, "its answer is not JSON: " + cause);
    if (reply)
      *reply = std::move(answer);
    return true;
  } catch (const std::exception& failure) {
    return refuse(request, failure.what());
  }
}

JSON_RESTful_Client* Upstream_JSON_RESTful_Client::instance()
{
  static Upstream_JSON_RESTful_Client client;
  return &client;
}

bool Upstream_JSON_RESTful_Client::exchange(const HTTP_Request& request, const std::string& body,
                                            Exchange_Result& result, std::string& error)
{
  const std::shared_ptr<kestrel::Upstream_Transport> carrier = transport();
  if (carrier)
    return carrier->exchange(request, body, result.status, result.body, error);
  error = "this host has no backup server; connect its agent to one";
  return false;
}

namespace kestrel
{
Upstream_Transport::~Upstream_Transport() = default;

void set_upstream_transport(std::shared_ptr<Upstream_Transport> carrier)
{
  const std::lock_guard<std::mutex> guard(transport_mutex);
  current_transport.swap(carrier);
}
} // namespace kestrel

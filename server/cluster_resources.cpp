#include "server/cluster_resources.h"

#include "base/uuid.h"
#include "server/cluster_coordinator.h"
#include "server/cluster_history.h"
#include "server/job_definitions.h"
#include "json/json_util.h"

#include <algorithm>

namespace kestrel
{
namespace
{
constexpr size_t ID_BYTES = 128;
constexpr size_t UUID_BYTES = 64;

std::string read_id(const json_spirit::Object& body, const char* key)
{
  const std::string id = required<std::string>(body, key);
  if (id.empty() || id.size() > ID_BYTES)
    throw REST_Error(400, "bad_request", std::string(key) + ": is empty or too long");
  return id;
}

/// Empty where the agent does not know it.
std::string read_uuid(const json_spirit::Object& body, const char* key)
{
  const std::string uuid = required<std::string>(body, key);
  const bool sane = uuid.size() <= UUID_BYTES && std::all_of(uuid.begin(), uuid.end(), [](char c) {
                      return c > ' ' && c < 0x7f;
                    });
  if (!sane)
    throw REST_Error(400, "bad_request", std::string(key) + ": is no id");
  return uuid;
}
/// Empty when the agent gave its request no name.
std::string read_request_id(const REST_Request& request)
{
  const auto header = request.headers.find("x-request-id");
  if (header == request.headers.end())
    return std::string();
  if (!is_uuid(header->second))
    throw REST_Error(400, "bad_request", "X-Request-Id: is no uuid");
  return header->second;
}
} // namespace

void Cluster_Resources::add_to(REST_Router& router)
{
  // An agent asks before each run of a cluster's job, and the history keeps every request.
  REST_Router::Route_Options asks;
  asks.quiet_audit = true;
  router.add("POST", "/k2/r/oscar/cluster", REST_Access::agent, [this](REST_Request& r) { return request(r); },
             asks);
  router.add("GET", "/k2/r/oscar/cluster", REST_Access::viewer, [this](REST_Request& r) { return list(r); });
}

REST_Reply Cluster_Resources::request(REST_Request& request)
{
  const json_spirit::Object& body = request.json.get_obj();
  Cluster_Request asked;
  asked.host_uuid = request.caller.uuid;
  asked.definition_uuid = read_id(body, "definition_uuid");
  asked.uid = read_uuid(body, "uid");
  asked.instance_uuid = read_uuid(body, "instance_uuid");
  asked.select_master = required<bool>(body, "select_master");
  asked.request_id = read_request_id(request);
  const Server_Definition_Ptr definition = definitions_.find(asked.definition_uuid);
  if (definition && !definition->on_host(asked.host_uuid))
    throw REST_Error(403, "not_a_host",
                     "Host " + request.caller.name + " is none of the hosts of job " + asked.definition_uuid);
  const Cluster_Coordinator::Ticket ticket = coordinator_.request(asked);
  json_spirit::Object answer;
  answer.emplace_back("selection_time", ticket.selection_time);
  REST_Reply reply;
  reply.json = std::move(answer);
  reply.after_sent = coordinator_.reply_listener(ticket);
  return reply;
}

REST_Reply Cluster_Resources::list(REST_Request& request)
{
  const int limit = static_cast<int>(request.query_number("limit", 100, 1, Cluster_History::KEPT));
  json_spirit::Object body;
  body.emplace_back("selections", history_.list(limit, request.query_text("definition")));
  REST_Reply reply;
  reply.json = std::move(body);
  return reply;
}
} // namespace kestrel

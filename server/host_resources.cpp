#include "server/host_resources.h"

#include "server/agent_hub.h"
#include "server/host_gate.h"
#include "json/json_util.h"

#include <algorithm>

namespace kestrel
{
namespace
{
/// What may be forwarded to an agent, for whom. All other methods are the server's own.
struct Forwarded_Method {
  const char* name;
  REST_Access least;
  bool changes;
  int most_seconds; ///< what it takes at most on a host that is well, and much more than that
};

const Forwarded_Method FORWARDED[] = {
    {"agent.status", REST_Access::viewer, false, 30},
    {"instance.list", REST_Access::viewer, false, 120},
    {"instance.login", REST_Access::operator_, true, 120},
    {"oscar.list", REST_Access::viewer, false, 120},
    {"oscar.node.check_state", REST_Access::viewer, false, 60},
    {"job.list", REST_Access::viewer, false, 30},
    {"job.control", REST_Access::operator_, true, 60},
    {"job.log", REST_Access::viewer, false, 30},
};
/// Waits for nothing on the host, and must go through when others have to wait.
const char* const CONTROL = "job.control";

constexpr int LEAST_SECONDS = 1;
constexpr int MOST_SECONDS = 300;
constexpr int DEFAULT_SECONDS = 30;
constexpr int LEAST_GIVEN_UP_SECONDS = 30;

const Forwarded_Method* find_method(const std::string& name)
{
  const auto* const found = std::find_if(std::begin(FORWARDED), std::end(FORWARDED),
                                         [&](const Forwarded_Method& method) { return method.name == name; });
  return found == std::end(FORWARDED) ? nullptr : found;
}

json_spirit::Object to_json(const Host_Status& host)
{
  json_spirit::Object entry;
  entry.emplace_back("uuid", host.uuid);
  entry.emplace_back("name", host.name);
  entry.emplace_back("online", host.online);
  entry.emplace_back("address", host.address);
  entry.emplace_back("version", host.version);
  entry.emplace_back("last_seen", host.last_seen);
  entry.emplace_back("running_jobs", host.running_jobs);
  entry.emplace_back("instances", host.instances);
  return entry;
}

int read_timeout(const json_spirit::Object& body)
{
  int seconds = DEFAULT_SECONDS;
  optional(body, "timeout", seconds);
  if (seconds < LEAST_SECONDS || seconds > MOST_SECONDS)
    throw REST_Error(400, "bad_request",
                     "timeout: must be a number of seconds from " + std::to_string(LEAST_SECONDS) + " to " +
                         std::to_string(MOST_SECONDS));
  return seconds;
}

REST_Reply forwarded_error(const JSON_RPC_Error& error)
{
  json_spirit::Object told;
  told.emplace_back("code", error.code);
  told.emplace_back("message", error.message);
  json_spirit::Object body;
  body.emplace_back("error", std::move(told));
  REST_Reply reply;
  reply.json = std::move(body);
  return reply;
}
} // namespace

Host_Status find_host_or_refuse(Agent_Hub& hub, const std::string& uuid_or_name)
{
  Host_Status host;
  if (!hub.find_host(uuid_or_name, host))
    throw REST_Error(404, "not_found",
                     "No host '" + uuid_or_name + "' is enrolled; the list of hosts has those that are");
  return host;
}

std::vector<std::string> read_hosts(Agent_Hub& hub, const json_spirit::Array& uuids_and_names)
{
  std::vector<std::string> uuids;
  for (const json_spirit::Value& entry : uuids_and_names) {
    Host_Status host;
    if (entry.type() != json_spirit::str_type || !hub.find_host(entry.get_str(), host))
      throw REST_Error(400, "unknown_host",
                       "hosts: " + (entry.type() == json_spirit::str_type
                                        ? "no host '" + entry.get_str() + "' is enrolled"
                                        : "must be a list of uuids or names"));
    if (std::find(uuids.begin(), uuids.end(), host.uuid) == uuids.end())
      uuids.push_back(host.uuid);
  }
  return uuids;
}

Agent_Call ask_through_gate(Agent_Hub& hub, Host_Gate& gate, const Gated_Question& question,
                            const json_spirit::Value& params, json_spirit::Value& result,
                            JSON_RPC_Error& error)
{
  Host_Gate::Pass pass(gate, question.user, question.host_uuid);
  const Agent_Call call =
      hub.ask(question.host_uuid, question.method, params, question.seconds * 1000, result, error);
  if (call == Agent_Call::late)
    pass.given_up(std::max(question.most_seconds - question.seconds, LEAST_GIVEN_UP_SECONDS) * 1000);
  return call;
}

Agent_Call Host_Resources::control(const std::string& host_uuid, const json_spirit::Value& params,
                                   int seconds, json_spirit::Value& result, JSON_RPC_Error& error)
{
  const Host_Gate::Pass pass(gate_);
  return hub_.ask(host_uuid, CONTROL, params, seconds * 1000, result, error);
}

void Host_Resources::add_to(REST_Router& router)
{
  router.add("GET", "/k2/r/hosts", REST_Access::viewer, [this](REST_Request& r) { return list(r); });
  router.add("GET", "/k2/r/hosts/{host}", REST_Access::viewer, [this](REST_Request& r) { return show(r); });
  router.add("POST", "/k2/r/hosts/{host}/rpc", REST_Access::viewer,
             [this](REST_Request& r) { return forward(r); });
}

REST_Reply Host_Resources::list(REST_Request&)
{
  json_spirit::Array hosts;
  for (const Host_Status& host : hub_.hosts())
    hosts.push_back(to_json(host));
  json_spirit::Object body;
  body.emplace_back("hosts", std::move(hosts));
  REST_Reply reply;
  reply.json = std::move(body);
  return reply;
}

REST_Reply Host_Resources::show(REST_Request& request)
{
  REST_Reply reply;
  reply.json = to_json(find_host_or_refuse(hub_, request.vars.at("host")));
  return reply;
}

REST_Reply Host_Resources::forward(REST_Request& request)
{
  const json_spirit::Object& body = request.json.get_obj();
  const std::string name = required<std::string>(body, "method");
  const Forwarded_Method* const method = find_method(name);
  if (!method)
    throw REST_Error(400, "unknown_method", "The method is none that is forwarded to agents");
  // Never the parameters: a password may be among them.
  const std::string audit = name;
  if (!rest_access_allowed(method->least, request.caller)) {
    REST_Reply refused = rest_error(403, "forbidden", "The method " + name + " needs the role operator");
    refused.audit = audit;
    return refused;
  }
  const int seconds = std::min(read_timeout(body), method->most_seconds);
  const Host_Status host = find_host_or_refuse(hub_, request.vars.at("host"));
  json_spirit::Value result;
  JSON_RPC_Error error;
  const json_spirit::Value& params = json_spirit::find_value(body, "params");
  const Agent_Call call =
      name == CONTROL
          ? control(host.uuid, params, seconds, result, error)
          : ask_through_gate(hub_, gate_,
                             {request.caller.name, host.uuid, name, seconds, method->most_seconds}, params,
                             result, error);
  REST_Reply reply;
  if (call == Agent_Call::answered) {
    json_spirit::Object answer;
    answer.emplace_back("result", std::move(result));
    reply.json = std::move(answer);
  } else if (call == Agent_Call::refused)
    reply = forwarded_error(error);
  else if (call == Agent_Call::late)
    reply = rest_error(504, "host_late",
                       "The agent of host " + host.name + " did not answer within " +
                           std::to_string(seconds) + " s; whether it did what was asked is not known");
  else
    reply =
        rest_error(503, "host_offline",
                   "The agent of host " + host.name +
                       (call == Agent_Call::lost ? " went away before it answered; whether it did what was "
                                                   "asked is not known"
                                                 : " is not connected; see that it runs and reaches the "
                                                   "server"));
  reply.audit = audit;
  reply.changed = method->changes;
  return reply;
}
} // namespace kestrel

#include "server/job_resources.h"

#include "base/ignore_result.h"
#include "base/uuid.h"
#include "server/agent_hub.h"
#include "server/cluster_outcome.h"
#include "server/host_gate.h"
#include "server/host_resources.h"
#include "server/job_sync.h"
#include "server/run_records.h"
#include "json/json_util.h"

#include <algorithm>
#include <chrono>
#include <map>
#include <set>

namespace kestrel
{
namespace
{
constexpr int CONTROL_MSEC = 20000;
constexpr int SYNC_MSEC = 10000;

std::string read_id(const json_spirit::Object& body, const json_spirit::Object& document)
{
  std::string id;
  if (!optional(body, "id", id) && !optional(document, "id", id))
    id = make_uuid();
  if (!is_uuid(id))
    throw REST_Error(400, "bad_request", "id: must be a uuid");
  return id;
}

void check_document(const std::string& id, json_spirit::Object& document)
{
  std::string error;
  if (!check_definition(id, document, error))
    throw REST_Error(400, "bad_document", "The definition is not usable: " + error);
}

Server_Definition_Ptr find_or_refuse(const Job_Definitions& definitions, const std::string& id)
{
  Server_Definition_Ptr definition = definitions.find(id);
  if (!definition)
    throw REST_Error(404, "not_found", "No job '" + id + "' is defined; the list of jobs has those that are");
  return definition;
}

/// Reads the parts of a definition that are there.
void take_members(Agent_Hub& hub, const json_spirit::Object& body, Server_Definition& definition)
{
  optional(body, "enabled", definition.enabled);
  json_spirit::Array hosts;
  if (optional(body, "hosts", hosts))
    definition.hosts = read_hosts(hub, hosts);
  if (definition.hosts.empty())
    throw REST_Error(400, "bad_request", "hosts: at least one host must run the job");
  optional(body, "document", definition.document);
  check_document(definition.id, definition.document);
}

json_spirit::Object error_json(int code, const std::string& message)
{
  json_spirit::Object error;
  error.emplace_back("code", code);
  error.emplace_back("message", message);
  return error;
}

bool is_action(const std::string& action)
{
  static const std::set<std::string> known = {"run",   "pause",  "resume", "cancel",
                                              "abort", "switch", "enable", "disable"};
  return known.count(action) > 0;
}
} // namespace

void Job_Resources::add_to(REST_Router& router)
{
  const char* const one = "/k2/r/jobs/{id}";
  router.add("GET", "/k2/r/jobs", REST_Access::viewer, [this](REST_Request& r) { return list(r); });
  router.add("POST", "/k2/r/jobs", REST_Access::operator_, [this](REST_Request& r) { return add(r); });
  router.add("GET", one, REST_Access::viewer, [this](REST_Request& r) { return show(r); });
  router.add("PUT", one, REST_Access::operator_, [this](REST_Request& r) { return change(r); });
  router.add("DELETE", one, REST_Access::operator_, [this](REST_Request& r) { return remove(r); });
  router.add("POST", "/k2/r/jobs/{id}/control", REST_Access::operator_,
             [this](REST_Request& r) { return control(r); });
}

json_spirit::Object Job_Resources::state_on(const std::string& host_uuid,
                                            const Server_Definition& definition) const
{
  json_spirit::Object state;
  state.emplace_back("name", hub_.name_of(host_uuid));
  state.emplace_back("online", hub_.online(host_uuid));
  state.emplace_back("synced", sync_.synced(host_uuid));
  const std::string refusal = sync_.refusal(host_uuid, definition.id);
  const json_spirit::Value told = hub_.job_state(host_uuid, definition.id);
  if (told.type() == json_spirit::obj_type)
    for (const json_spirit::Pair& member : told.get_obj())
      if (member.name_ != "name" && member.name_ != "id")
        state.push_back(member);
  if (!refusal.empty())
    set_value(state, "refused", refusal);
  return state;
}

json_spirit::Object Job_Resources::to_json(const Server_Definition& definition) const
{
  json_spirit::Object states;
  for (const std::string& host : definition.hosts)
    states.emplace_back(host, state_on(host, definition));
  json_spirit::Object entry;
  entry.emplace_back("id", definition.id);
  entry.emplace_back("revision", definition.revision);
  entry.emplace_back("enabled", definition.enabled);
  entry.emplace_back("hosts", json_spirit::Array(definition.hosts.begin(), definition.hosts.end()));
  entry.emplace_back("document", definition.document);
  entry.emplace_back("changed_at", definition.changed_at);
  entry.emplace_back("changed_by", definition.changed_by);
  entry.emplace_back("states", std::move(states));
  return entry;
}

REST_Reply Job_Resources::list(REST_Request&)
{
  const std::vector<Server_Definition_Ptr> definitions = definitions_.all();
  const Newest_Runs newest = newest_of(definitions);
  json_spirit::Array jobs;
  for (const Server_Definition_Ptr& definition : definitions)
    jobs.push_back(to_json_with_outcome(*definition, newest));
  json_spirit::Object body;
  body.emplace_back("jobs", std::move(jobs));
  REST_Reply reply;
  reply.json = std::move(body);
  return reply;
}

REST_Reply Job_Resources::show(REST_Request& request)
{
  const Server_Definition_Ptr definition = find_or_refuse(definitions_, request.vars.at("id"));
  REST_Reply reply;
  reply.json = to_json_with_outcome(*definition, newest_of({definition}));
  return reply;
}

/// Of the jobs of clusters.
Job_Resources::Newest_Runs
Job_Resources::newest_of(const std::vector<Server_Definition_Ptr>& definitions) const
{
  std::vector<Run_Records::Node> nodes;
  for (const Server_Definition_Ptr& definition : definitions)
    if (definition->for_cluster())
      for (const std::string& host : definition->hosts)
        nodes.emplace_back(definition->id, host);
  return runs_.newest(nodes);
}

json_spirit::Object Job_Resources::to_json_with_outcome(const Server_Definition& definition,
                                                        const Newest_Runs& newest) const
{
  json_spirit::Object entry = to_json(definition);
  entry.emplace_back("nobody_worked", nobody_worked(definition, newest));
  return entry;
}

std::string Job_Resources::nobody_worked(const Server_Definition& definition, const Newest_Runs& newest) const
{
  if (!definition.for_cluster())
    return std::string();
  std::vector<Node_Outcome> outcomes;
  for (const std::string& host : definition.hosts) {
    Node_Outcome outcome;
    outcome.host_name = hub_.name_of(host);
    const auto found = newest.find({definition.id, host});
    if (found != newest.end())
      outcome.record = found->second;
    outcome.running = hub_.online(host) && hub_.runs(host, definition.id);
    outcomes.push_back(std::move(outcome));
  }
  const json_spirit::Value& name = json_spirit::find_value(definition.document, "name");
  return why_nobody_worked(name.type() == json_spirit::str_type ? name.get_str() : definition.id, outcomes);
}

void Job_Resources::tell_hosts(const Server_Definition_Ptr& former, const Server_Definition_Ptr& stored)
{
  std::set<std::string> hosts;
  for (const Server_Definition_Ptr& definition : {former, stored})
    if (definition)
      hosts.insert(definition->hosts.begin(), definition->hosts.end());
  sync_.wanted(std::vector<std::string>(hosts.begin(), hosts.end()));
}

REST_Reply Job_Resources::add(REST_Request& request)
{
  const json_spirit::Object& body = request.json.get_obj();
  Server_Definition definition;
  definition.document = required<json_spirit::Object>(body, "document");
  definition.id = read_id(body, definition.document);
  definition.changed_by = request.caller.name;
  take_members(hub_, body, definition);
  Server_Definition_Ptr stored;
  if (definitions_.add(definition, stored) == Job_Definitions::Result::exists)
    throw REST_Error(409, "exists", "A job '" + definition.id + "' is defined already; PUT changes it");
  tell_hosts(nullptr, stored);
  REST_Reply reply;
  reply.status = 201;
  reply.audit = "job " + stored->id;
  reply.json = to_json(*stored);
  return reply;
}

REST_Reply Job_Resources::change(REST_Request& request)
{
  const json_spirit::Object& body = request.json.get_obj();
  const Server_Definition_Ptr present = find_or_refuse(definitions_, request.vars.at("id"));
  Server_Definition definition = *present;
  std::string id = definition.id;
  optional(body, "id", id);
  if (id != definition.id)
    throw REST_Error(400, "bad_request", "id: a definition keeps its id");
  int64_t revision = 0;
  optional(body, "revision", revision);
  definition.changed_by = request.caller.name;
  take_members(hub_, body, definition);
  Server_Definition_Ptr former, stored;
  // What the request leaves out was read before, and must not have changed meanwhile.
  const Job_Definitions::Result result =
      definitions_.change(definition, revision != 0 ? revision : present->revision, former, stored);
  if (result == Job_Definitions::Result::not_found)
    throw REST_Error(404, "not_found", "The job '" + definition.id + "' was removed meanwhile");
  if (result == Job_Definitions::Result::conflict)
    throw REST_Error(409, "changed",
                     "The job '" + definition.id + "' was changed by somebody else (revision " +
                         std::to_string(former->revision) + "); read it again");
  tell_hosts(former, stored);
  REST_Reply reply;
  reply.audit = "revision " + std::to_string(stored->revision);
  reply.json = to_json(*stored);
  return reply;
}

REST_Reply Job_Resources::remove(REST_Request& request)
{
  const std::string id = request.vars.at("id");
  Server_Definition_Ptr former;
  if (definitions_.remove(id, request.caller.name, former) == Job_Definitions::Result::not_found)
    find_or_refuse(definitions_, id);
  if (former)
    tell_hosts(former, nullptr);
  json_spirit::Object body;
  body.emplace_back("id", id);
  REST_Reply reply;
  reply.json = std::move(body);
  return reply;
}

json_spirit::Object Job_Resources::result_of(const std::string& host_uuid) const
{
  json_spirit::Object entry;
  entry.emplace_back("host", host_uuid);
  entry.emplace_back("name", hub_.name_of(host_uuid));
  return entry;
}

REST_Reply Job_Resources::set_enabled(const Server_Definition_Ptr& definition, bool enabled,
                                      const REST_Request& request)
{
  Server_Definition_Ptr present = definition;
  for (int tries = 0; present && present->enabled != enabled && tries < 10; ++tries) {
    Server_Definition changed = *present;
    changed.enabled = enabled;
    changed.changed_by = request.caller.name;
    Server_Definition_Ptr former, stored;
    if (definitions_.change(changed, present->revision, former, stored) == Job_Definitions::Result::done)
      tell_hosts(former, stored);
    present = definitions_.find(definition->id);
  }
  if (!present || present->enabled != enabled)
    throw REST_Error(409, "changed", "The job is being changed by somebody else; try again");
  json_spirit::Array results;
  for (const std::string& host : present->hosts)
    results.push_back(result_of(host));
  json_spirit::Object body;
  body.emplace_back("results", std::move(results));
  REST_Reply reply;
  reply.audit = enabled ? "enable" : "disable";
  reply.json = std::move(body);
  return reply;
}

/// So that hosts know what they are asked to run.
void Job_Resources::await_sync(const std::vector<std::string>& hosts)
{
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(SYNC_MSEC);
  for (const std::string& host : hosts) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
    ignore_result(sync_.await(host, static_cast<int>(std::max<int64_t>(0, left.count()))),
                  "the host refuses what it does not know");
  }
}

REST_Reply Job_Resources::control(REST_Request& request)
{
  const json_spirit::Object& body = request.json.get_obj();
  const std::string action = required<std::string>(body, "action");
  if (!is_action(action))
    throw REST_Error(400, "bad_request",
                     "action: must be run, pause, resume, cancel, abort, switch, enable or disable");
  const Server_Definition_Ptr definition = find_or_refuse(definitions_, request.vars.at("id"));
  json_spirit::Array wanted;
  const bool picked = optional(body, "hosts", wanted) && !wanted.empty();
  if (action == "enable" || action == "disable") {
    if (picked)
      throw REST_Error(400, "bad_request", "hosts: a job is enabled and disabled on all its hosts");
    return set_enabled(definition, action == "enable", request);
  }
  const std::vector<std::string> hosts = picked ? read_hosts(hub_, wanted) : definition->hosts;
  for (const std::string& host : hosts)
    if (!definition->on_host(host))
      throw REST_Error(400, "bad_request", "hosts: " + hub_.name_of(host) + " is none of the job's hosts");
  json_spirit::Object params;
  params.emplace_back("id", definition->id);
  params.emplace_back("action", action);
  json_spirit::Object run;
  if (optional(body, "run", run))
    params.emplace_back("run", run);
  const Host_Gate::Pass pass(gate_);
  if (action == "run") {
    await_sync(hosts);
    new_run_(definition->id);
  }
  json_spirit::Array results;
  for (const Agent_Hub::Answer& answer : hub_.ask_all(hosts, "job.control", params, CONTROL_MSEC)) {
    json_spirit::Object entry = result_of(answer.host_uuid);
    std::string run_id;
    if (answer.call == Agent_Call::answered && answer.result.type() == json_spirit::obj_type) {
      const json_spirit::Value& told = json_spirit::find_value(answer.result.get_obj(), "run_id");
      run_id = told.type() == json_spirit::str_type ? told.get_str() : std::string();
    }
    entry.emplace_back("run_id", run_id);
    if (answer.call != Agent_Call::answered)
      entry.emplace_back("error", error_json(answer.error.code, answer.error.message));
    results.push_back(std::move(entry));
    sync_.list_again(answer.host_uuid);
  }
  json_spirit::Object answer;
  answer.emplace_back("results", std::move(results));
  REST_Reply reply;
  reply.audit = action + " on " + std::to_string(hosts.size()) + (hosts.size() == 1 ? " host" : " hosts");
  reply.json = std::move(answer);
  return reply;
}
} // namespace kestrel

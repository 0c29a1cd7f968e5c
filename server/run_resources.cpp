#include "server/run_resources.h"

#include "server/agent_hub.h"
#include "server/host_gate.h"
#include "server/host_resources.h"
#include "server/job_definitions.h"
#include "server/run_records.h"
#include "json/json_util.h"

#include <charconv>
#include <system_error>

namespace kestrel
{
namespace
{
constexpr int REPORT_LIMIT = 1000;
constexpr int LIST_LIMIT = 10000;
constexpr int LOG_SECONDS = 20;
constexpr int64_t LOG_BYTES = 1 << 20;

REST_Error no_such_run(const std::string& run_id)
{
  return REST_Error(404, "not_found",
                    "No run '" + run_id + "' is known; a run is told of when its host is connected");
}

/// A place in the list as "next" tells it: the queued_at and the id of the last run of a page.
void read_place(const std::string& text, Run_Records::Filter& filter)
{
  if (text.empty())
    return;
  const size_t comma = text.find(',');
  const std::string number = text.substr(0, comma);
  int64_t queued_at = 0;
  const auto [end, problem] = std::from_chars(number.data(), number.data() + number.size(), queued_at);
  if (comma == std::string::npos || comma + 1 == text.size() || problem != std::errc() ||
      end != number.data() + number.size())
    throw REST_Error(400, "bad_query", "before: must be what \"next\" of the page before tells");
  filter.before_queued_at = queued_at;
  filter.before_run_id = text.substr(comma + 1);
}
} // namespace

void Run_Resources::add_to(REST_Router& router)
{
  REST_Router::Route_Options quiet;
  quiet.quiet_audit = true;
  router.add(
      "POST", "/k2/r/runs", REST_Access::agent, [this](REST_Request& r) { return report(r); }, quiet);
  router.add("GET", "/k2/r/runs", REST_Access::viewer,
             [this](REST_Request& r) { return list(r, r.query_text("job")); });
  router.add("GET", "/k2/r/jobs/{id}/runs", REST_Access::viewer,
             [this](REST_Request& r) { return list_of_job(r); });
  router.add("GET", "/k2/r/runs/{run_id}", REST_Access::viewer, [this](REST_Request& r) { return show(r); });
  router.add("GET", "/k2/r/runs/{run_id}/log", REST_Access::viewer,
             [this](REST_Request& r) { return log(r); });
}

REST_Reply Run_Resources::report(REST_Request& request)
{
  const json_spirit::Array records = required<json_spirit::Array>(request.json.get_obj(), "runs");
  if (records.size() > REPORT_LIMIT)
    throw REST_Error(413, "too_many", "runs: at most " + std::to_string(REPORT_LIMIT) + " at a time");
  std::vector<std::string> stored;
  std::vector<Run_Records::Refusal> refused;
  runs_.store(request.caller.uuid, records, stored, refused);
  json_spirit::Array refusals;
  for (const Run_Records::Refusal& refusal : refused) {
    json_spirit::Object entry;
    entry.emplace_back("run_id", refusal.run_id);
    entry.emplace_back("reason", refusal.reason);
    refusals.push_back(std::move(entry));
  }
  json_spirit::Object body;
  body.emplace_back("stored", json_spirit::Array(stored.begin(), stored.end()));
  body.emplace_back("refused", std::move(refusals));
  REST_Reply reply;
  reply.json = std::move(body);
  return reply;
}

REST_Reply Run_Resources::list(REST_Request& request, const std::string& definition_id)
{
  Run_Records::Filter filter;
  filter.definition_id = definition_id;
  filter.state = request.query_text("state");
  filter.limit = static_cast<int>(request.query_number("limit", filter.limit, 1, LIST_LIMIT));
  const std::string host = request.query_text("host");
  if (!host.empty())
    filter.host_uuid = find_host_or_refuse(hub_, host).uuid;
  read_place(request.query_text("before"), filter);
  Run_Records::Page page = runs_.page(filter);
  json_spirit::Object body;
  body.emplace_back("runs", std::move(page.runs));
  body.emplace_back("truncated", page.truncated);
  body.emplace_back("next",
                    page.more ? std::to_string(page.last_queued_at) + "," + page.last_run_id : std::string());
  REST_Reply reply;
  reply.json = std::move(body);
  return reply;
}

REST_Reply Run_Resources::list_of_job(REST_Request& request)
{
  const std::string id = request.vars.at("id");
  REST_Reply reply = list(request, id);
  // A removed definition still has its runs.
  if (!definitions_.find(id) && json_spirit::find_value(reply.json.get_obj(), "runs").get_array().empty())
    return rest_error(404, "not_found", "No job '" + id + "' is defined, and no run of it is known");
  return reply;
}

REST_Reply Run_Resources::show(REST_Request& request)
{
  const std::string run_id = request.vars.at("run_id");
  REST_Reply reply;
  if (runs_.find(run_id, reply.json))
    return reply;
  std::string host, definition, state;
  if (!hub_.find_run(run_id, host, definition, state))
    throw no_such_run(run_id);
  json_spirit::Object record;
  record.emplace_back("run_id", run_id);
  record.emplace_back("definition_id", definition);
  record.emplace_back("host_uuid", host);
  record.emplace_back("state", state);
  record.emplace_back("ended_at", 0);
  reply.json = std::move(record);
  return reply;
}

REST_Reply Run_Resources::log(REST_Request& request)
{
  const std::string run_id = request.vars.at("run_id");
  std::string host, definition, state;
  json_spirit::Value record;
  if (runs_.find(run_id, record))
    host = required<std::string>(record.get_obj(), "host_uuid");
  else if (!hub_.find_run(run_id, host, definition, state))
    throw no_such_run(run_id);
  json_spirit::Object params;
  params.emplace_back("run_id", run_id);
  params.emplace_back("offset", request.query_number("offset", 0, 0, INT64_MAX));
  params.emplace_back("limit", request.query_number("limit", 64 * 1024, 1, LOG_BYTES));
  JSON_RPC_Error error;
  REST_Reply reply;
  switch (ask_through_gate(hub_, gate_, {request.caller.name, host, "job.log", LOG_SECONDS, LOG_SECONDS},
                           params, reply.json, error)) {
  case Agent_Call::answered:
    return reply;
  case Agent_Call::refused:
    return rest_error(error.code == JSON_RPC_UNKNOWN_ID ? 404 : 502, "no_log",
                      "The agent of host " + hub_.name_of(host) + " gives no log: " + error.message);
  case Agent_Call::late:
    return rest_error(504, "host_late",
                      "The agent of host " + hub_.name_of(host) + " did not answer in time");
  default:
    return rest_error(
        503, "host_offline",
        "The agent of host " + hub_.name_of(host) +
            " is not connected; the log lies on the host, in the file that the run's record names");
  }
}
} // namespace kestrel

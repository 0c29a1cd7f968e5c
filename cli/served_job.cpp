#include "cli/served_job.h"

#include "base/clock.h"
#include "cli/reference.h"
#include "cli/served_json.h"
#include "json/json_util.h"

#include <algorithm>

namespace kestrel
{
namespace
{
/// How long a host may take to hear of a new definition.
const int64_t SPREAD_MSEC = 15000;
const int64_t SPREAD_PAUSE_MSEC = 250;
const int RPC_UNKNOWN_ID = -32001;

Control_Result read_control_result(const json_spirit::Object& entry)
{
  Control_Result result;
  result.host_uuid = text_in(entry, "host");
  result.run_id = text_in(entry, "run_id");
  const json_spirit::Object error = object_in(entry, "error");
  if (!error.empty()) {
    result.problem = text_in(error, "message");
    if (result.problem.empty())
      result.problem = "refused without a reason; see the server's log";
    result.unknown_job = number_in(error, "code") == RPC_UNKNOWN_ID;
  }
  return result;
}

bool ask_hosts(Console& console, const std::string& job_id, const std::string& action,
               const std::vector<std::string>& host_uuids, std::vector<Control_Result>& results,
               REST_Problem& problem)
{
  json_spirit::Object body;
  set_value(body, "action", action);
  if (!host_uuids.empty())
    set_value(body, "hosts", json_spirit::Array(host_uuids.begin(), host_uuids.end()));
  json_spirit::Object reply;
  if (!console.try_send("POST", {"jobs", job_id, "control"}, body, reply, problem))
    return false;
  results.clear();
  for (const json_spirit::Object& entry : objects_in(reply, "results"))
    results.push_back(read_control_result(entry));
  return true;
}

/// Newest first.
bool list_runs(Console& console, std::vector<json_spirit::Object>& runs)
{
  return console.get_list({"runs"}, {{"limit", "1000"}}, "runs", runs);
}
} // namespace

bool control_job(Console& console, const std::string& job_id, const std::string& action,
                 const std::vector<std::string>& host_uuids, std::vector<Control_Result>& results,
                 REST_Problem& problem)
{
  const int64_t end = clock().monotonic_msec() + SPREAD_MSEC;
  if (!ask_hosts(console, job_id, action, host_uuids, results, problem))
    return false;
  for (;;) {
    std::vector<std::string> again;
    for (const Control_Result& result : results)
      if (result.unknown_job)
        again.push_back(result.host_uuid);
    if (again.empty() || clock().monotonic_msec() >= end)
      return true;
    clock().sleep_msec(SPREAD_PAUSE_MSEC);
    std::vector<Control_Result> later;
    if (!ask_hosts(console, job_id, action, again, later, problem))
      return false;
    for (Control_Result& result : results)
      for (const Control_Result& newer : later)
        if (newer.host_uuid == result.host_uuid)
          result = newer;
  }
}

bool define_job(Console& console, const Job_To_Define& job, bool& created, json_spirit::Object& reply,
                REST_Problem& problem)
{
  const std::string id = text_in(job.document, "id");
  json_spirit::Object body;
  set_value(body, "id", id);
  set_value(body, "enabled", job.enabled);
  set_value(body, "hosts", json_spirit::Array(job.host_uuids.begin(), job.host_uuids.end()));
  set_value(body, "document", job.document);
  json_spirit::Object known;
  created = !console.try_get({"jobs", id}, {}, known, problem);
  if (created && problem.status != 404)
    return false;
  return created ? console.try_send("POST", {"jobs"}, body, reply, problem)
                 : console.try_send("PUT", {"jobs", id}, body, reply, problem);
}

std::string job_name(const json_spirit::Object& job)
{
  const std::string name = text_in(object_in(job, "document"), "name");
  return name.empty() ? short_id(text_in(job, "id")) : name;
}

std::string job_kind(const json_spirit::Object& document)
{
  // Documents may have the numbers.
  const json_spirit::Value& type = find_value(document, "type");
  const json_spirit::Value& subtype = find_value(document, "subtype");
  const auto word = [](const json_spirit::Value& value, const char* (*name)(int)) {
    return value.type() == json_spirit::str_type   ? value.get_str()
           : value.type() == json_spirit::int_type ? std::string(name(static_cast<int>(value.get_int64())))
                                                   : std::string();
  };
  const std::string type_word =
      word(type, [](int number) { return job_def_type_to_string(static_cast<Job_Definition_Type>(number)); });
  const std::string subtype_word = word(subtype, [](int number) {
    return job_def_subtype_to_string(static_cast<Job_Definition_Subtype>(number));
  });
  if (subtype_word == "export" || subtype_word == "import")
    return subtype_word;
  return type_word == "backup" && !subtype_word.empty() ? type_word + " " + subtype_word : type_word;
}

std::string state_on_host(const json_spirit::Object& job, const std::string& host_uuid)
{
  const json_spirit::Object told = object_in(object_in(job, "states"), host_uuid.c_str());
  const std::string now = text_in(object_in(told, "now"), "state");
  return or_dash(now.empty() ? text_in(told, "state") : now);
}

bool list_jobs(Console& console, std::vector<json_spirit::Object>& jobs)
{
  if (!console.get_list({"jobs"}, {}, "jobs", jobs))
    return false;
  std::stable_sort(jobs.begin(), jobs.end(),
                   [](const json_spirit::Object& left, const json_spirit::Object& right) {
                     return job_name(left) < job_name(right);
                   });
  return true;
}

bool find_job(Console& console, const std::string& reference, json_spirit::Object& job)
{
  std::vector<json_spirit::Object> jobs;
  if (!list_jobs(console, jobs))
    return false;
  std::vector<Candidate> candidates;
  for (const json_spirit::Object& entry : jobs)
    candidates.push_back({text_in(entry, "id"), job_name(entry)});
  size_t position = 0;
  std::string error;
  if (resolve_reference("job", reference, candidates, position, error) != Reference_Fit::one) {
    console.fail(error + (candidates.empty() ? "" : "; 'kestrel jobs' lists them"));
    return false;
  }
  job = jobs[position];
  return true;
}

bool find_run(Console& console, const std::string& reference, bool quiet_when_missing,
              json_spirit::Object& run)
{
  REST_Problem problem;
  if (console.try_get({"runs", reference}, {}, run, problem))
    return true;
  if (problem.status != 404 && problem.status != 400) {
    console.fail_request(problem);
    return false;
  }
  std::vector<json_spirit::Object> runs;
  if (!list_runs(console, runs))
    return false;
  std::vector<Candidate> candidates;
  for (const json_spirit::Object& entry : runs)
    candidates.push_back({text_in(entry, "run_id"), ""});
  size_t position = 0;
  std::string error;
  const Reference_Fit fit = resolve_reference("run", reference, candidates, position, error);
  if (fit == Reference_Fit::one) {
    run = runs[position];
    return true;
  }
  if (fit == Reference_Fit::several || !quiet_when_missing)
    console.fail(error + "; 'kestrel job runs' lists them");
  return false;
}
} // namespace kestrel

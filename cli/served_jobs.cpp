#include "cli/job_command.h"
#include "cli/job_file.h"
#include "cli/run_follower.h"
#include "cli/served_commands.h"
#include "cli/served_json.h"
#include "cli/text_format.h"

#include "json/json_util.h"

#include <algorithm>

namespace kestrel
{
namespace
{
/// The earliest run that any host has planned; "-" when there is none.
std::string next_run_of(const json_spirit::Object& job)
{
  int64_t next = 0;
  for (const json_spirit::Pair& state : object_in(job, "states")) {
    const int64_t time =
        state.value_.type() == json_spirit::obj_type ? number_in(state.value_.get_obj(), "next_run") : 0;
    if (time > 0 && (next == 0 || time < next))
      next = time;
  }
  return next ? format_time(static_cast<time_t>(next)).substr(0, 16) : "-";
}

bool is_enabled(const json_spirit::Object& job)
{
  const json_spirit::Value& enabled = find_value(job, "enabled");
  return enabled.type() != json_spirit::bool_type || enabled.get_bool();
}

/// One word for all hosts: what a running one does, else the last state that one told of; of a cluster's job
/// whose work no host did, that.
std::string state_of(const json_spirit::Object& job)
{
  std::string word = "-";
  for (const std::string& host : texts_in(job, "hosts")) {
    const std::string state = state_on_host(job, host);
    if (job_run_in_progress(job_state_of_word(state)))
      return state;
    if (word == "-")
      word = state;
  }
  if (!is_enabled(job))
    return "disabled";
  return text_in(job, "nobody_worked").empty() ? word : "no node";
}

/// Cuts the names in these columns until the table fits the screen, but not to less than `least`.
void cut_names(std::vector<std::vector<std::string>>& rows,
               const std::vector<std::pair<size_t, size_t>>& columns)
{
  std::vector<size_t> widths(rows.front().size());
  for (const std::vector<std::string>& row : rows)
    for (size_t column = 0; column < row.size(); ++column)
      widths[column] = std::max(widths[column], display_width(row[column]));
  size_t wide = 2 * (widths.size() - 1);
  for (const size_t width : widths)
    wide += width;
  for (const auto& [column, least] : columns) {
    const size_t over = wide > SCREEN_COLUMNS ? wide - SCREEN_COLUMNS : 0;
    const size_t room = widths[column] > least ? std::min(over, widths[column] - least) : 0;
    for (std::vector<std::string>& row : rows)
      row[column] = cut_to(row[column], widths[column] - room);
    wide -= room;
  }
}

std::string host_list(Console& console, const json_spirit::Object& job)
{
  std::string text;
  for (const std::string& host : texts_in(job, "hosts"))
    text += (text.empty() ? "" : ",") + console.host_name(host);
  return or_dash(text);
}

std::string schedule_text(const json_spirit::Object& schedule)
{
  const std::string cron = text_in(schedule, "cron");
  if (cron.empty())
    return number_in(schedule, "type") == 7 ? "on demand"
                                            : "type " + std::to_string(number_in(schedule, "type"));
  const std::string zone = text_in(schedule, "time_zone");
  const std::string missed = text_in(schedule, "missed");
  const json_spirit::Value& enabled = find_value(schedule, "enabled");
  return cron + (zone.empty() ? "" : " " + zone) + (missed.empty() ? "" : ", missed: " + missed) +
         (enabled.type() == json_spirit::bool_type && !enabled.get_bool() ? ", disabled" : "");
}

void add_host_rows(Console& console, const json_spirit::Object& job,
                   std::vector<std::vector<std::string>>& rows)
{
  for (const std::string& host : texts_in(job, "hosts")) {
    const json_spirit::Object told = object_in(object_in(job, "states"), host.c_str());
    const json_spirit::Object last = object_in(told, "last_run");
    std::string text = state_on_host(job, host);
    if (number_in(told, "next_run") > 0)
      text += ", next run " + minute_in(told, "next_run");
    if (!last.empty())
      text += ", last run " + or_dash(text_in(last, "state")) + " " + minute_in(last, "ended_at");
    if (!text_in(told, "refused").empty())
      text += ", refused there: " + text_in(told, "refused");
    rows.push_back({"On " + console.host_name(host), text});
  }
}

json_spirit::Object json_of_control(Console& console, const json_spirit::Object& job,
                                    const std::string& action, const std::vector<Control_Result>& results)
{
  json_spirit::Array list;
  for (const Control_Result& result : results) {
    json_spirit::Object entry;
    set_value(entry, "host", console.host_name(result.host_uuid));
    set_value(entry, "host_uuid", result.host_uuid);
    set_value(entry, "run_id",
              result.run_id.empty() ? json_spirit::Value() : json_spirit::Value(result.run_id));
    set_value(entry, "problem", result.problem);
    list.push_back(entry);
  }
  json_spirit::Object json;
  set_value(json, "id", text_in(job, "id"));
  set_value(json, "name", job_name(job));
  set_value(json, "action", action);
  set_value(json, "results", list);
  return json;
}

/// Sends the request to the hosts of --host, or to all of the job's. `failed` tells whether one refused.
bool request(Console& console, const std::string& action, json_spirit::Object& job,
             std::vector<Control_Result>& results)
{
  if (!find_job(console, console.line().names.front(), job))
    return false;
  std::vector<std::string> hosts;
  for (const std::string& reference : console.line().hosts) {
    Served_Host host;
    if (!console.find_host(reference, host))
      return false;
    hosts.push_back(host.uuid);
  }
  REST_Problem problem;
  if (control_job(console, text_in(job, "id"), action, hosts, results, problem))
    return true;
  console.fail_request(problem);
  return false;
}

/// The first refusal as the failure of the command; the others as remarks.
int end_control(Console& console, const json_spirit::Object& job, const std::string& action,
                const std::vector<Control_Result>& results)
{
  std::string first;
  for (const Control_Result& result : results) {
    if (result.problem.empty())
      continue;
    const std::string text = "host " + console.host_name(result.host_uuid) + ": " + result.problem;
    if (first.empty())
      first = text;
    else
      console.note(text);
  }
  if (results.empty())
    first = "the job has no host; give it one: kestrel job define FILE --host HOST";
  return first.empty() ? EXIT_CODE_DONE
                       : console.fail("job " + job_name(job) + ": " + action + " was refused: " + first);
}

int control(Console& console, const std::string& action)
{
  json_spirit::Object job;
  std::vector<Control_Result> results;
  if (!request(console, action, job, results))
    return console.last_code();
  std::string text;
  for (const Control_Result& result : results)
    if (result.problem.empty())
      text += "Job " + job_name(job) + " on " + console.host_name(result.host_uuid) + ": " + action +
              " accepted" + (result.run_id.empty() ? "" : ", run " + result.run_id) + ".\n";
  const int code = end_control(console, job, action, results);
  if (code == EXIT_CODE_DONE || !console.line().json)
    console.result(json_of_control(console, job, action, results), text);
  return code;
}

json_spirit::Object json_of_end(Console& console, const Run_End& end)
{
  json_spirit::Object json;
  set_value(json, "run_id", end.run.run_id);
  set_value(json, "host", console.host_name(end.run.host_uuid));
  set_value(json, "host_uuid", end.run.host_uuid);
  set_value(json, "state", end.known ? job_state_text(end.result.state) : "unknown");
  set_value(json, "reason", end.known ? end.result.reason : end.problem);
  set_value(json, "bytes", static_cast<uint64_t>(std::max<int64_t>(0, number_in(end.record, "done_bytes"))));
  set_value(json, "log", end.result.log_path);
  return json;
}

/// What a run that was followed is told as. Of several nodes only one does the work: the others' skips are no
/// failure.
int end_followed(Console& console, const json_spirit::Object& job, const std::vector<Run_End>& ends)
{
  const int code = exit_code_of(ends);
  for (const Run_End& end : ends) {
    if (end.exit_code != code || code == EXIT_CODE_DONE)
      continue;
    const std::string what = "job " + job_name(job) + " on " + console.host_name(end.run.host_uuid);
    if (!end.known)
      return console.fail("the " + what + ": " + end.problem, code);
    Job_Report report;
    report.exit_code = code;
    report.run = end.result;
    report_job(console, {job_name(job), what, "the job log says how far it came", ""}, report);
    return code;
  }
  json_spirit::Array list;
  std::string text;
  for (const Run_End& end : ends) {
    list.push_back(json_of_end(console, end));
    text += "Job " + job_name(job) + " on " + console.host_name(end.run.host_uuid) + ": " +
            (end.known ? job_state_text(end.result.state) : end.problem) +
            (end.result.reason.empty() ? "" : " (" + end.result.reason + ")") + ".\n";
  }
  json_spirit::Object json;
  set_value(json, "id", text_in(job, "id"));
  set_value(json, "name", job_name(job));
  set_value(json, "runs", list);
  console.result(json, text);
  return code;
}

int run_and_follow(Console& console, const json_spirit::Object& job,
                   const std::vector<Control_Result>& results)
{
  std::vector<Followed_Run> runs;
  for (const Control_Result& result : results)
    if (result.problem.empty() && !result.run_id.empty())
      runs.push_back({result.host_uuid, result.run_id});
  if (runs.empty())
    return end_control(console, job, "run", results);
  for (const Control_Result& result : results)
    if (!result.problem.empty())
      console.note("host " + console.host_name(result.host_uuid) + " does not take part: " + result.problem);
  Run_Follower follower(console, text_in(job, "id"), job_name(job));
  return end_followed(console, job, follower.follow(runs));
}

bool define_file(Console& console, Job_To_Define& job, bool& created)
{
  json_spirit::Object reply;
  REST_Problem problem;
  if (!read_job_file(console, job))
    return false;
  if (define_job(console, job, created, reply, problem))
    return true;
  console.fail_request(problem, "the job definition " + console.line().file);
  return false;
}
} // namespace

int served_jobs(Console& console)
{
  std::vector<json_spirit::Object> jobs;
  if (!list_jobs(console, jobs))
    return EXIT_CODE_FAILED;
  json_spirit::Array list;
  std::vector<std::vector<std::string>> rows = {{"JOB", "KIND", "HOSTS", "STATE", "NEXT RUN", "ID"}};
  std::string undone;
  for (const json_spirit::Object& job : jobs) {
    json_spirit::Object shown = job;
    set_value(shown, "name", job_name(job));
    list.push_back(shown);
    rows.push_back({cut_to(job_name(job), 20), job_kind(object_in(job, "document")),
                    cut_to(host_list(console, job), 14), cut_to(state_of(job), 10), next_run_of(job),
                    short_id(text_in(job, "id"))});
    if (!text_in(job, "nobody_worked").empty())
      undone += format_wrapped("No node did the work of " + job_name(job) +
                                   " when it was started last; why: kestrel nodes --definition " +
                                   short_id(text_in(job, "id")),
                               "", SCREEN_COLUMNS);
  }
  cut_names(rows, {{2, 10}, {0, 12}});
  json_spirit::Object json;
  set_value(json, "jobs", list);
  console.result(json, jobs.empty() ? "There is no job yet. Make one: kestrel job define FILE\n"
                                    : format_table(rows) + undone);
  return EXIT_CODE_DONE;
}

int served_job_define(Console& console)
{
  Job_To_Define job;
  bool created = false;
  if (!define_file(console, job, created))
    return console.last_code();
  json_spirit::Array hosts;
  std::string names;
  for (const std::string& uuid : job.host_uuids) {
    hosts.push_back(console.host_name(uuid));
    names += (names.empty() ? "" : ", ") + console.host_name(uuid);
  }
  json_spirit::Object json;
  set_value(json, "id", text_in(job.document, "id"));
  set_value(json, "name", text_in(job.document, "name"));
  set_value(json, "created", created);
  set_value(json, "enabled", job.enabled);
  set_value(json, "hosts", hosts);
  console.result(json, std::string(created ? "Made" : "Changed") + " job " + text_in(job.document, "id") +
                           " on " + names + (job.enabled ? "" : " (disabled)") + ".\n");
  return EXIT_CODE_DONE;
}

int served_job_show(Console& console)
{
  json_spirit::Object job;
  if (!find_job(console, console.line().names.front(), job))
    return console.last_code();
  // Servers of former versions say less of each job in their list.
  json_spirit::Object whole;
  REST_Problem problem;
  if (console.try_get({"jobs", text_in(job, "id")}, {}, whole, problem))
    job = std::move(whole);
  else if (problem.status != 404) { // removed meanwhile
    console.fail_request(problem);
    return EXIT_CODE_FAILED;
  }
  const json_spirit::Object document = object_in(job, "document");
  std::vector<std::vector<std::string>> rows = {{"Job", job_name(job)},
                                                {"Id", text_in(job, "id")},
                                                {"Kind", job_kind(document)},
                                                {"Enabled", is_enabled(job) ? "yes" : "no"},
                                                {"Revision", std::to_string(number_in(job, "revision"))}};
  std::string source;
  for (const std::string& entry : texts_in(object_in(document, "source"), "entries"))
    source += (source.empty() ? "" : ", ") + entry;
  if (source.empty())
    source = text_in(object_in(document, "source"), "name");
  rows.push_back({"Source", or_dash(source)});
  Pool_Info pool;
  std::string error;
  const std::string pool_id = text_in(object_in(document, "target"), "id");
  rows.push_back({"Pool", console.find_pool(pool_id, pool, error) ? pool.name : pool_id});
  bool first = true;
  for (const json_spirit::Object& schedule : objects_in(document, "schedules")) {
    rows.push_back({first ? "Schedules" : "", schedule_text(schedule)});
    first = false;
  }
  add_host_rows(console, job, rows);
  if (!text_in(job, "nobody_worked").empty())
    rows.push_back({"Problem", text_in(job, "nobody_worked")});
  console.result(job, format_table(rows));
  return EXIT_CODE_DONE;
}

int served_job_run(Console& console)
{
  if (!console.line().wait)
    return control(console, "run");
  json_spirit::Object job;
  std::vector<Control_Result> results;
  if (!request(console, "run", job, results))
    return console.last_code();
  return run_and_follow(console, job, results);
}

int served_run_file(Console& console)
{
  Job_To_Define definition;
  bool created = false;
  json_spirit::Object job;
  std::vector<Control_Result> results;
  REST_Problem problem;
  if (!define_file(console, definition, created))
    return console.last_code();
  const std::string id = text_in(definition.document, "id");
  if (!console.get({"jobs", id}, job))
    return EXIT_CODE_FAILED;
  if (!control_job(console, id, "run", {}, results, problem))
    return console.fail_request(problem);
  return run_and_follow(console, job, results);
}

int served_job_pause(Console& console)
{
  return control(console, "pause");
}
int served_job_resume(Console& console)
{
  return control(console, "resume");
}
int served_job_cancel(Console& console)
{
  return control(console, "cancel");
}
int served_job_abort(Console& console)
{
  return control(console, "abort");
}
int served_job_switch(Console& console)
{
  return control(console, "switch");
}
int served_job_enable(Console& console)
{
  return control(console, "enable");
}
int served_job_disable(Console& console)
{
  return control(console, "disable");
}

int served_job_remove(Console& console)
{
  json_spirit::Object job;
  json_spirit::Object reply;
  if (!find_job(console, console.line().names.front(), job) ||
      !console.send("DELETE", {"jobs", text_in(job, "id")}, json_spirit::Value(), reply))
    return console.last_code();
  json_spirit::Object json;
  set_value(json, "id", text_in(job, "id"));
  set_value(json, "name", job_name(job));
  console.result(json, "Job " + job_name(job) + " is removed; the records of its runs stay.\n");
  return EXIT_CODE_DONE;
}
} // namespace kestrel

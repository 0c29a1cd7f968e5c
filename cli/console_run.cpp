#include "cli/console.h"

#include "agent/failure_text.h"
#include "base/clock.h"
#include "cli/job_command.h"
#include "cli/run_follower.h"
#include "cli/served_job.h"
#include "cli/served_json.h"
#include "json/json_util.h"

namespace kestrel
{
namespace
{
const int SCHEDULE_ON_DEMAND = 7;
/// More of a job log is not looked at.
const size_t MOST_LOG_BYTES = 8u << 20;

/// A definition that somebody has given times keeps them.
json_spirit::Array schedules_of(Console& console, const std::string& job_id)
{
  json_spirit::Object known;
  REST_Problem problem;
  json_spirit::Array schedules;
  if (console.try_get({"jobs", job_id}, {}, known, problem))
    schedules = array_in(object_in(known, "document"), "schedules");
  for (const json_spirit::Value& schedule : schedules)
    if (schedule.type() == json_spirit::obj_type &&
        number_in(schedule.get_obj(), "type") == SCHEDULE_ON_DEMAND)
      return schedules;
  json_spirit::Object on_demand;
  set_value(on_demand, "type", SCHEDULE_ON_DEMAND);
  schedules.push_back(on_demand);
  return schedules;
}

/// The document as the server is given it: a server has many definitions of one instance, so that each needs
/// a name that tells it from the others.
bool served_document(Console& console, const std::string& text, Job_To_Define& job, std::string& error)
{
  json_spirit::Value value;
  if (!read_json(text, value, error))
    return false;
  job.document = value.get_obj();
  set_value(job.document, "name",
            job_kind(job.document).substr(0, job_kind(job.document).find(' ')) + " " +
                text_in(job.document, "name"));
  set_value(job.document, "schedules", schedules_of(console, text_in(job.document, "id")));
  return true;
}
} // namespace

Job_Report Console::run_document(const Known_Instance& instance, const std::string& document,
                                 const Job_Words& words)
{
  Job_Report report;
  Job_To_Define job;
  job.host_uuids = {instance.host_uuid};
  bool created = false;
  json_spirit::Object reply;
  REST_Problem problem;
  std::string error;
  if (!served_document(*this, document, job, error)) {
    report.exit_code = fail("the " + words.what + " cannot be defined: " + error);
    return report;
  }
  const std::string job_id = text_in(job.document, "id");
  std::vector<Control_Result> results;
  if (!define_job(*this, job, created, reply, problem)) {
    report.exit_code = fail_request(problem, "the " + words.what + " cannot be defined");
    return report;
  }
  if (!control_job(*this, job_id, "run", job.host_uuids, results, problem)) {
    report.exit_code = fail_request(problem, "the " + words.what + " did not start");
    return report;
  }
  if (results.empty() || !results.front().problem.empty() || results.front().run_id.empty()) {
    report.exit_code = fail("the " + words.what + " did not start on " + instance.host_name + ": " +
                            (results.empty() || results.front().problem.empty() ? "the host gave no run"
                                                                                : results.front().problem));
    return report;
  }
  note("Run " + results.front().run_id + " on " + instance.host_name);
  const int64_t begin_msec = clock().monotonic_msec();
  Run_Follower follower(*this, job_id, words.label);
  const Run_End end = follower.follow({{instance.host_uuid, results.front().run_id}}).front();
  last_run_ = end.run.run_id;
  report.duration_msec = clock().monotonic_msec() - begin_msec;
  report.bytes = follower.bytes();
  report.run = end.result;
  report.exit_code = end.exit_code;
  if (end.known)
    report_job(*this, words, report);
  else
    fail("the " + words.what + ": " + end.problem);
  return report;
}

std::string Console::fallback_reason(const Job_Run_Result&)
{
  std::string log;
  for (int64_t offset = 0; log.size() < MOST_LOG_BYTES;) {
    json_spirit::Object reply;
    REST_Problem problem;
    if (!try_get({"runs", last_run_, "log"}, {{"offset", std::to_string(offset)}}, reply, problem))
      break;
    const std::string text = text_in(reply, "text");
    log += text;
    offset = number_in(reply, "next_offset");
    if (text.empty() || flag_in(reply, "ended"))
      break;
  }
  return fallback_from_log_text(log);
}
} // namespace kestrel

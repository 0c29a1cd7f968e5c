#include "cli/cancel_signals.h"
#include "cli/served_commands.h"
#include "cli/served_job.h"
#include "cli/served_json.h"
#include "cli/text_format.h"

#include "base/clock.h"
#include "json/json_util.h"

#include <algorithm>
#include <cstdio>

namespace kestrel
{
namespace
{
const int64_t LOG_POLL_MSEC = 700;
const char LOG_PIECE_BYTES[] = "262144";
const size_t PAGE_LIMIT = 10000;

std::string took(const json_spirit::Object& run)
{
  const int64_t begin = number_in(run, "started_at");
  const int64_t end = number_in(run, "ended_at");
  return begin > 0 && end >= begin ? format_duration(end - begin) : "-";
}

/// The run that the user's word means: of a job its newest one, the one under way included.
bool find_run_for_log(Console& console, const std::string& reference, std::string& run_id)
{
  json_spirit::Object run;
  if (find_run(console, reference, true, run)) {
    run_id = text_in(run, "run_id");
    return true;
  }
  json_spirit::Object job;
  if (console.last_code() != EXIT_CODE_DONE || !find_job(console, reference, job))
    return false;
  for (const std::string& host : texts_in(job, "hosts")) {
    const json_spirit::Object told = object_in(object_in(job, "states"), host.c_str());
    if (flag_in(told, "running"))
      run_id = text_in(told, "run_id");
  }
  if (!run_id.empty())
    return true;
  std::vector<json_spirit::Object> runs;
  if (!console.get_list({"jobs", text_in(job, "id"), "runs"}, {{"limit", "1"}}, "runs", runs))
    return false;
  if (!runs.empty()) {
    run_id = text_in(runs.front(), "run_id");
    return true;
  }
  console.fail("job " + job_name(job) + " has not run yet");
  return false;
}

/// One piece of the log behind `offset`. `ended`: nothing follows.
bool read_piece(Console& console, const std::string& run_id, int64_t& offset, std::string& text, bool& ended)
{
  json_spirit::Object reply;
  if (!console.get({"runs", run_id, "log"}, {{"offset", std::to_string(offset)}, {"limit", LOG_PIECE_BYTES}},
                   reply))
    return false;
  text = text_in(reply, "text");
  ended = flag_in(reply, "ended");
  if (!text.empty() && number_in(reply, "next_offset") <= offset) {
    console.fail_answer("a growing \"next_offset\"");
    return false;
  }
  if (!text.empty())
    offset = number_in(reply, "next_offset");
  return true;
}

/// The server ends a page where its answer would get too large; the next goes on from there.
bool get_runs(Console& console, const Console::Parts& parts, const Console::Query& query, size_t limit,
              std::vector<json_spirit::Object>& runs)
{
  std::string next;
  do {
    Console::Query page = query;
    page.push_back({"limit", std::to_string(std::min<size_t>(limit - runs.size(), PAGE_LIMIT))});
    if (!next.empty())
      page.push_back({"before", next});
    json_spirit::Object reply;
    if (!console.get(parts, page, reply))
      return false;
    for (json_spirit::Object& run : objects_in(reply, "runs"))
      runs.push_back(std::move(run));
    next = text_in(reply, "next");
  } while (!next.empty() && runs.size() < limit);
  return true;
}
} // namespace

int served_job_runs(Console& console)
{
  const Command_Line& line = console.line();
  Console::Parts parts = {"runs"};
  Console::Query query;
  json_spirit::Object job;
  if (!line.names.empty()) {
    if (!find_job(console, line.names.front(), job))
      return console.last_code();
    parts = {"jobs", text_in(job, "id"), "runs"};
  }
  Served_Host host;
  if (!line.host.empty()) {
    if (!console.find_host(line.host, host))
      return console.last_code();
    query.push_back({"host", host.uuid});
  }
  std::vector<json_spirit::Object> runs;
  if (!get_runs(console, parts, query, static_cast<size_t>(line.limit), runs))
    return EXIT_CODE_FAILED;
  json_spirit::Array list;
  std::vector<std::vector<std::string>> rows = {{"RUN", "JOB", "HOST", "STATE", "BEGUN", "TOOK"}};
  for (const json_spirit::Object& run : runs) {
    list.push_back(run);
    rows.push_back({short_id(text_in(run, "run_id")), cut_to(or_dash(text_in(run, "name")), 18),
                    cut_to(console.host_name(text_in(run, "host_uuid")), 12),
                    cut_to(text_in(run, "state"), 12),
                    minute_in(run, number_in(run, "started_at") ? "started_at" : "queued_at"), took(run)});
  }
  json_spirit::Object json;
  set_value(json, "runs", list);
  console.result(json, runs.empty() ? "No run has ended yet.\n" : format_table(rows));
  return EXIT_CODE_DONE;
}

int served_job_log(Console& console)
{
  std::string run_id;
  if (!find_run_for_log(console, console.line().names.front(), run_id))
    return console.last_code();
  const Cancel_Signals signals;
  std::string whole;
  int64_t offset = 0;
  bool ended = false;
  for (;;) {
    std::string text;
    if (!read_piece(console, run_id, offset, text, ended))
      return EXIT_CODE_FAILED;
    if (console.line().json)
      whole += text;
    else if (!write_result(text))
      break;
    if (Cancel_Signals::requested())
      break;
    if (!text.empty())
      continue;
    if (ended || !console.line().follow)
      break;
    clock().sleep_msec(LOG_POLL_MSEC);
  }
  if (console.line().json) {
    json_spirit::Object json;
    set_value(json, "run_id", run_id);
    set_value(json, "text", whole);
    set_value(json, "ended", ended);
    console.result(json, "");
  }
  return Cancel_Signals::requested() && !ended ? EXIT_CODE_CANCELED : EXIT_CODE_DONE;
}
} // namespace kestrel

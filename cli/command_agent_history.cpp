#include "cli/command_agent.h"

#include "agent/job_database.h"
#include "agent/run_history.h"
#include "base/path_conf.h"
#include "cli/command_output.h"
#include "cli/console.h"
#include "cli/reference.h"
#include "cli/served_json.h"
#include "cli/text_format.h"
#include "json/json_util.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <limits>
#include <unistd.h>

namespace kestrel
{
namespace
{
/// The definition that the user's word means, of those that have a record. False after fail().
bool find_definition(Command_Output& output, const Run_History& history, const std::string& reference,
                     std::string& definition_id)
{
  std::vector<Run_Record> records;
  std::string error;
  if (!history.latest_records(records, error)) {
    output.fail(error);
    return false;
  }
  std::vector<Candidate> candidates;
  for (const Run_Record& record : records)
    candidates.push_back({record.definition_id, record.name});
  size_t position = 0;
  const Reference_Fit fit = resolve_reference("job", reference, candidates, position, error);
  if (fit != Reference_Fit::one) {
    output.fail(fit == Reference_Fit::none
                    ? "there is no job " + reference +
                          " in the history; 'kestrel agent history' lists those that have run here"
                    : error);
    return false;
  }
  definition_id = candidates[position].id;
  return true;
}

std::string minute_of(time_t time)
{
  return time ? format_time(time).substr(0, 16) : "-";
}

std::string took(const Run_Record& run)
{
  return run.started_at && run.ended_at >= run.started_at ? format_duration(run.ended_at - run.started_at)
                                                          : "-";
}

/// What stands below the row of a run that did not simply end well: why, and where its log is.
std::string details_of(const Run_Record& run)
{
  const std::string indent(10, ' ');
  std::string text = format_wrapped(run.reason, indent, SCREEN_COLUMNS);
  if (!run.refusal.empty())
    text += format_wrapped("the server does not take this record: " + run.refusal, indent, SCREEN_COLUMNS);
  if (run.state != JOB_STATE_COMPLETED && !run.log_path.empty())
    text += indent + "log: " + run.log_path + "\n";
  return text;
}

/// As servers tell of it, but for the host, which is this one.
json_spirit::Object json_of(const Run_Record& run)
{
  json_spirit::Object json = run_record_json(run, "");
  json.erase(std::remove_if(json.begin(), json.end(),
                            [](const json_spirit::Pair& member) { return member.name_ == "host_uuid"; }),
             json.end());
  return json;
}

std::string text_of(const std::vector<Run_Record>& runs)
{
  if (runs.empty())
    return "No run is kept yet.\n";
  std::vector<std::vector<std::string>> rows = {{"RUN", "JOB", "STATE", "BEGUN", "TOOK"}};
  std::multimap<size_t, std::string> details;
  for (const Run_Record& run : runs) {
    rows.push_back({short_id(run.run_id), cut_to(or_dash(run.name), 18),
                    cut_to(job_state_text(run.state), 16),
                    minute_of(run.started_at ? run.started_at : run.queued_at), took(run)});
    std::string lines = details_of(run);
    if (lines.empty())
      continue;
    lines.pop_back(); // the table ends it
    details.emplace(rows.size(), lines);
  }
  return format_table(rows, {}, details);
}
} // namespace

int run_agent_history(const Command_Line& line)
{
  Command_Output output(line);
  if (!prepare_console(output))
    return EXIT_CODE_FAILED;
  // Not state_path(): that would make the directory.
  const std::string path =
      product_path(("/var/opt/tarnvik/kestrel3/" + component_name() + "/agent.db").c_str());
  Job_Database database;
  const Run_History history(database, false);
  std::string error;
  std::string definition_id;
  if (!database.open_to_read(path, error)) {
    // A host on which nothing has run has an empty history, but whoever looks in the wrong tree must see it.
    if (::access(path.c_str(), F_OK) == 0 || errno != ENOENT || !line.names.empty())
      return output.fail(error);
    error[0] = static_cast<char>(std::toupper(static_cast<unsigned char>(error[0])));
    output.result({{"runs", json_spirit::Array()}}, error + ".\n");
    return EXIT_CODE_DONE;
  }
  if (!line.names.empty() && !find_definition(output, history, line.names.front(), definition_id))
    return output.last_code();
  const uint64_t most = std::numeric_limits<unsigned>::max();
  std::vector<Run_Record> runs;
  if (!history.list(definition_id, static_cast<unsigned>(line.limit ? std::min(line.limit, most) : most),
                    runs, error))
    return output.fail(error);
  json_spirit::Array list;
  for (const Run_Record& run : runs)
    list.push_back(json_of(run));
  json_spirit::Object json;
  set_value(json, "runs", list);
  output.result(json, text_of(runs));
  return EXIT_CODE_DONE;
}
} // namespace kestrel

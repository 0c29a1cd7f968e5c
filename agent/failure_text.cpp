#include "agent/failure_text.h"

#include <boost/algorithm/string/predicate.hpp>
#include <boost/algorithm/string/trim.hpp>

#include <fstream>
#include <sstream>

namespace kestrel
{
namespace
{
/// Job logs are written by tools too: only so much of one is looked at.
constexpr size_t longest_line_bytes = 16 * 1024;

const std::vector<const char*> error_priorities = {"ERROR ", "CRITICAL ", "EMERGENCY "};
const std::vector<const char*> info_priorities = {"INFO "};
/// What a job says when it makes a full backup instead, and what stands before its reason where that is no
/// error.
const char fallback_line[] = "Lack of backup info, run full backup instead";
const char fallback_reason_mark[] = "check_full_backup_set_state: ";
/// What stands before the command line of each tool.
const char tool_line[] = "Oscar command:";
const char missing_dump_begin[] = "Osr file does not exist, path: ";
const char archive_begin[] = "The archive could not be ";

/// The text of a record, "2026-01-31 10:00:00.123 [pid.tid] ERROR text"; false for other priorities and other
/// lines.
bool record_text_of(const std::string& line, const std::vector<const char*>& priorities, std::string& text)
{
  const size_t bracket = line.find("] ");
  if (bracket == std::string::npos)
    return false;
  const std::string rest = line.substr(bracket + 2);
  for (const char* priority : priorities) {
    if (!boost::starts_with(rest, priority))
      continue;
    text = rest.substr(rest.find(' ') + 1);
    // Process and thread, which some messages begin with, mean nothing to people.
    if (boost::starts_with(text, "(") && text.find(") ") != std::string::npos &&
        text.find_first_not_of("(0123456789|") == text.find(") "))
      text.erase(0, text.find(") ") + 2);
    boost::trim_right_if(text, [](char c) { return c == '.' || c == ' ' || c == '\r'; });
    return !text.empty();
  }
  return false;
}

/// What a job's log says of its errors and its level.
struct Job_Log_Facts {
  std::string first_error;
  std::string last_error;
  std::string fallback_reason; ///< empty: the level is the one asked for
  bool tool_told = false;      ///< the tool that ran last has been followed by an error
};

/// Whether an error only tells what came of the one before it, which is the reason.
bool is_consequence(const std::string& text, const Job_Log_Facts& facts)
{
  if (boost::starts_with(text, missing_dump_begin))
    return facts.tool_told;
  if (facts.last_error.empty() || !boost::starts_with(text, archive_begin))
    return false;
  return boost::ends_with(text, ": the pre-action failed") ||
         boost::ends_with(text, ": the post-action failed") ||
         boost::ends_with(text, ": " + facts.last_error);
}

void take_error(const std::string& text, std::string& reason, Job_Log_Facts& facts)
{
  if (is_consequence(text, facts))
    return;
  if (facts.first_error.empty())
    facts.first_error = text;
  facts.last_error = reason = text;
  facts.tool_told = true;
}

void take_info(const std::string& text, std::string& reason, Job_Log_Facts& facts)
{
  if (text == tool_line)
    facts.tool_told = false;
  const size_t mark = text.find(fallback_reason_mark);
  if (mark != std::string::npos)
    reason = text.substr(mark + sizeof fallback_reason_mark - 1);
  if (text != fallback_line)
    return;
  // What led to it did not end the job.
  facts.fallback_reason = reason.empty() ? "the chain cannot be continued" : reason;
  facts.first_error.clear();
  facts.last_error.clear();
}

Job_Log_Facts facts_of_job_log(std::istream& log)
{
  Job_Log_Facts facts;
  std::string line;
  std::string reason;
  while (std::getline(log, line)) {
    line.resize(std::min(line.size(), longest_line_bytes));
    std::string text;
    if (record_text_of(line, error_priorities, text)) {
      take_error(text, reason, facts);
    } else if (record_text_of(line, info_priorities, text)) {
      take_info(text, reason, facts);
    }
  }
  return facts;
}

Job_Log_Facts facts_of_job_log(const std::string& log_path)
{
  std::ifstream log(log_path);
  return facts_of_job_log(log);
}

struct Advice {
  int code;
  const char* text;
};

const Advice advices[] = {
    {1, "name an instance in the definition's \"entries\""},
    {2, "check that the catalog holds a backup of this instance (kestrel backups)"},
    {3, "store an account with: kestrel login INSTANCE --user USER"},
    {6, "run 'kestrel instances' while the instance is up"},
    {11, "check the pool with: kestrel pool list"},
    {12, "check the pool with: kestrel pool list"},
    {13, "check that the pool's directory is there and can be written"},
    {14, "check that the pool's directory is there, has room and can be written"},
    {15, "check the permissions and the free space below the product's state directory"},
    {16, "read what the tool said in the job log"},
    {17, "check the free space and the health of the pool's disk"},
    {18, "read in the job log which step failed"},
    {19, "check the instance's server process"},
    {20, "run 'kestrel instances' while the instance is up"},
    {24, "check that the instance is up and that the stored account can log in"},
};
} // namespace

std::string reason_from_job_log(const std::string& log_path)
{
  const Job_Log_Facts facts = facts_of_job_log(log_path);
  return facts.first_error == facts.last_error ? facts.first_error
                                               : facts.first_error + "; " + facts.last_error;
}

std::string fallback_from_job_log(const std::string& log_path)
{
  return facts_of_job_log(log_path).fallback_reason;
}

std::string fallback_from_log_text(const std::string& text)
{
  std::istringstream log(text);
  return facts_of_job_log(log).fallback_reason;
}

std::string advice_for(const std::vector<Job_Alert>& alerts)
{
  if (!alerts.empty())
    for (const Advice& advice : advices)
      if (advice.code == alerts.back().code)
        return advice.text;
  return "read the job log";
}
} // namespace kestrel

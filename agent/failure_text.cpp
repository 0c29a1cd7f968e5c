#include "agent/failure_text.h"

#include <boost/algorithm/string/predicate.hpp>
#include <boost/algorithm/string/trim.hpp>

#include <fstream>

namespace kestrel
{
namespace
{
/// Job logs are written by tools too: only so much of one is looked at.
constexpr size_t longest_line_bytes = 16 * 1024;

/// The text of an error record, "2026-01-31 10:00:00.123 [pid.tid] ERROR text"; false for other lines.
bool error_text_of(const std::string& line, std::string& text)
{
  const size_t bracket = line.find("] ");
  if (bracket == std::string::npos)
    return false;
  const std::string rest = line.substr(bracket + 2);
  for (const char* priority : {"ERROR ", "CRITICAL ", "EMERGENCY "}) {
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
    {18, "check that the catalog and the instance's chain state are readable"},
    {19, "check the instance's server process"},
    {20, "run 'kestrel instances' while the instance is up"},
    {24, "check that the instance is up and that the stored account can log in"},
};
} // namespace

std::string reason_from_job_log(const std::string& log_path)
{
  std::ifstream log(log_path);
  std::string line;
  std::string first;
  std::string last;
  while (std::getline(log, line)) {
    line.resize(std::min(line.size(), longest_line_bytes));
    std::string text;
    if (!error_text_of(line, text))
      continue;
    if (first.empty())
      first = text;
    last = text;
  }
  return first == last ? first : first + "; " + last;
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

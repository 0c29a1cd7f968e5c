#include "server/cluster_outcome.h"

#include "json/json_util.h"

#include <algorithm>

namespace kestrel
{
namespace
{
/// Clocks and queues of the hosts of one start may differ by so much.
constexpr int64_t ONE_START_SECONDS = 600;

std::string text_of(const json_spirit::Object& record, const char* key)
{
  const json_spirit::Value& value = json_spirit::find_value(record, key);
  return value.type() == json_spirit::str_type ? value.get_str() : std::string();
}

int64_t queued_at(const json_spirit::Object& record)
{
  const json_spirit::Value& value = json_spirit::find_value(record, "queued_at");
  return value.type() == json_spirit::int_type ? value.get_int64() : 0;
}

/// What became of the run on this host, in a few words.
std::string words(const Node_Outcome& outcome, bool of_this_start)
{
  if (!of_this_start)
    return "no run of this start is known";
  std::string reason = text_of(outcome.record, "reason");
  while (!reason.empty() && (reason.back() == '\n' || reason.back() == ' '))
    reason.pop_back();
  return text_of(outcome.record, "state") + (reason.empty() ? "" : ", " + reason);
}
} // namespace

std::string why_nobody_worked(const std::string& job_name, const std::vector<Node_Outcome>& outcomes)
{
  int64_t newest = 0;
  for (const Node_Outcome& outcome : outcomes)
    newest = std::max(newest, queued_at(outcome.record));
  if (newest == 0)
    return std::string();
  std::string text;
  for (const Node_Outcome& outcome : outcomes) {
    const bool of_this_start = queued_at(outcome.record) + ONE_START_SECONDS >= newest;
    const std::string state = text_of(outcome.record, "state");
    if (outcome.running || (of_this_start && (state == "completed" || state == "completed with errors")))
      return std::string();
    text += (text.empty() ? "" : "; ") + ("host " + outcome.host_name + ": " + words(outcome, of_this_start));
  }
  return "no node did the work of " + job_name + " when it was started last: " + text;
}
} // namespace kestrel

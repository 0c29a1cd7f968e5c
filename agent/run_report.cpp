#include "agent/run_report.h"

#include "json/json_util.h"

#include <algorithm>
#include <exception>

namespace kestrel
{
namespace
{
const size_t most_reason_bytes = 500;

/// Foreign text for the log and the history: one line of bounded length.
std::string one_line(std::string text)
{
  if (text.empty())
    return "it gave no reason";
  text.resize(std::min(text.size(), most_reason_bytes));
  std::replace_if(
      text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7f; },
      ' ');
  return utf8_without_invalid(text);
}

bool is_final(int status)
{
  switch (status) {
  case 401:
  case 403:
  case 407:
  case 408:
  case 425:
  case 429:
    return false;
  default:
    return status >= 400 && status <= 499;
  }
}
} // namespace

Report_Outcome read_report_answer(const json_spirit::Value& reply, Report_Answer& answer)
{
  Report_Answer read;
  try {
    const json_spirit::Object& object = reply.get_obj();
    for (const json_spirit::Value& id : required<json_spirit::Array>(object, "stored"))
      read.stored.push_back(id.get_str());
    json_spirit::Array refused;
    optional(object, "refused", refused);
    for (const json_spirit::Value& entry : refused)
      read.refused.push_back(Refused_Run{required<std::string>(entry.get_obj(), "run_id"),
                                         one_line(required<std::string>(entry.get_obj(), "reason"))});
  } catch (const std::exception& exception) {
    answer = Report_Answer();
    answer.reason = std::string("the server's answer cannot be used: ") + exception.what();
    return Report_Outcome::unreachable;
  }
  answer = std::move(read);
  return Report_Outcome::answered;
}

Report_Outcome read_report_failure(const REST_Problem& problem, Report_Answer& answer)
{
  answer = Report_Answer();
  answer.reason = one_line(problem.text);
  const bool from_server = problem.kind == REST_Problem::refused && !problem.code.empty();
  return from_server && is_final(problem.status) ? Report_Outcome::refused : Report_Outcome::unreachable;
}
} // namespace kestrel

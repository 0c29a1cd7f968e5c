#pragma once

#include "agent/run_history.h"
#include "remote/rest_client.h"
#include "json/value.h"

#include <string>
#include <vector>

namespace kestrel
{
/// What became of a batch of run records.
enum class Report_Outcome {
  answered,    ///< the server said which of them it has stored, and which it will never take
  refused,     ///< it takes none of this batch, and would not take it later
  unreachable, ///< it could not be asked, or has no time now, or is no server of ours: later it may work
};

/// What a server said to a batch of run records.
/// Threads: plain values.
struct Report_Answer {
  std::vector<std::string> stored;  ///< run ids
  std::vector<Refused_Run> refused; ///< for good
  std::string reason;               ///< of an outcome other than `answered`, for people
};

/// Reads the answer of a report: {"stored":[ids],"refused":[{"run_id","reason"}]}, the latter optional. What
/// is neither among these is simply not answered for. Errors: `unreachable` with the reason when it is
/// nothing of that kind; no lists then.
Report_Outcome read_report_answer(const json_spirit::Value& reply, Report_Answer& answer);

/// The same for a report that failed. Refused for good is what the server itself answered, in its own form,
/// with a status from 400 to 499 that says so of the records: not of the caller's rights (401, 403, 407), of
/// the moment (408, 425, 429), and not what something else on the way answers.
Report_Outcome read_report_failure(const REST_Problem& problem, Report_Answer& answer);
} // namespace kestrel

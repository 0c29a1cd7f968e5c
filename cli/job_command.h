#pragma once

#include "cli/session.h"

#include <string>

namespace kestrel
{
/// A finished run as exit code and as text.
struct Job_Report {
  int exit_code = EXIT_CODE_FAILED;
  Job_Run_Result run;
  uint64_t bytes = 0; ///< that moved, as last reported
  int64_t duration_msec = 0;
};

/// Runs one job with progress on the standard error output; SIGINT and SIGTERM send it one stop request.
/// A run that did not succeed is reported with Session::fail() before this returns.
struct Job_Words {
  std::string label;              ///< stands before the bar
  std::string what;               ///< names the work in messages: "backup of DB1"
  std::string after_cancel;       ///< what a cancel leaves behind: "nothing of it was kept"
  std::string after_failure = {}; ///< what a failure leaves behind; empty: nothing that matters
};
Job_Report run_job(Session& session, const Job_Definition_Ptr& definition, const Job_Words& words);
} // namespace kestrel

#pragma once

#include "jobs/job_alert.h"

#include <string>
#include <vector>

namespace kestrel
{
/// What the user reads about a run that did not succeed. Plain functions; any thread; never fail.

/// The first error line of a job's log and, where it differs, the last one, joined by "; " and without time stamps and
/// full stops at their ends. Empty when the log cannot be read or has no error.
std::string reason_from_job_log(const std::string& log_path);

/// What to do next, from the last alert that a run raised. Never empty.
std::string advice_for(const std::vector<Job_Alert>& alerts);
} // namespace kestrel

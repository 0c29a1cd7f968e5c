#pragma once

#include "jobs/job_alert.h"

#include <string>
#include <vector>

namespace kestrel
{
/// What the user reads about a run that did not do what it was asked for. Plain functions; any thread; never
/// fail.

/// The first error line of a job's log and, where it differs, the last one, joined by "; " and without time
/// stamps and full stops at their ends. Errors that only made the job a full backup do not count, nor do
/// those that only follow from the one before: the dump that a failed tool did not make, the archive that was
/// not written because of it. Empty when the log cannot be read or has no error.
std::string reason_from_job_log(const std::string& log_path);

/// Why a backup job that was to continue a chain made a full backup instead, from its log; empty when it did
/// not.
std::string fallback_from_job_log(const std::string& log_path);
/// The same from the text of a log.
std::string fallback_from_log_text(const std::string& text);

/// What to do next, from the last alert that a run raised. Never empty.
std::string advice_for(const std::vector<Job_Alert>& alerts);
} // namespace kestrel

#pragma once

#include <ctime>
#include <string>
#include <vector>

namespace kestrel
{
struct Run_Record;

/// What is known of a run whose process died, for its record in the history.
/// Errors: what cannot be read is left out.

/// When the definition's job began its work last, by its own record; 0 when it never did. For
/// Run_Record::former_start.
time_t last_start_of(const std::string& definition_id);

/// Ends the record: state, time, and a reason that tells how far the job had come, what was cleared away,
/// which unfinished files are left in its pool, and of a restore in what state it leaves what it restored. A run
/// whose start could not be stored counts as begun when the job's own record says so. `document` is the
/// definition's text, empty when it is not known; `removed` are the paths that were cleared away at this start.
void end_interrupted_run(Run_Record& record, const std::string& document,
                         const std::vector<std::string>& removed);
} // namespace kestrel

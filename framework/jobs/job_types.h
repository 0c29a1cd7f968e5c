#pragma once

#include <string>

/// Job enumerations. The values travel (job documents, activity records, catalog), so they never change; the
/// fixed underlying type keeps values that this version does not know.

enum Job_Definition_Type : int {
  JOB_DEFINITION_NONE = 0,
  JOB_DEFINITION_BACKUP = 1,
  JOB_DEFINITION_RESTORE = 2,
  JOB_DEFINITION_STANDBY = 3,
  JOB_DEFINITION_STORAGE = 4
};

enum Job_Definition_Subtype : int {
  JOB_DEFINITION_SUBTYPE_NONE = 0,
  JOB_DEFINITION_SUBTYPE_FULL = 1,
  JOB_DEFINITION_SUBTYPE_INCREMENTAL = 2,
  JOB_DEFINITION_SUBTYPE_CUMULATIVE = 3,
  JOB_DEFINITION_SUBTYPE_EXPORT = 5,
  JOB_DEFINITION_SUBTYPE_POINT_IN_TIME = 13,
  JOB_DEFINITION_SUBTYPE_IMPORT = 14
};

enum Job_State : int {
  JOB_STATE_NONE = 0,
  JOB_STATE_IDLE = 1,
  JOB_STATE_STARTING = 2,
  JOB_STATE_RUNNING = 3,
  JOB_STATE_PAUSING = 4,
  JOB_STATE_PAUSED = 5,
  JOB_STATE_COMPLETING = 6,
  JOB_STATE_COMPLETED = 7,
  JOB_STATE_CANCELING = 8,
  JOB_STATE_CANCELED = 9,
  JOB_STATE_ERROR = 10,
  JOB_STATE_CREATED = 11,
  JOB_STATE_UPDATED = 12,
  JOB_STATE_DELETING = 13,
  JOB_STATE_DELETED = 14,
  JOB_STATE_COMPLETED_WITH_ERRORS = 15,
  JOB_STATE_DISPATCHING = 16,
  JOB_STATE_SKIPPED = 17,
  JOB_STATE_EXPIRED = 18,
  JOB_STATE_DISABLED = 19,
  JOB_STATE_ABORTING = 20,
  JOB_STATE_CREATING = 21,
  JOB_STATE_SYNCING = 22,
  JOB_STATE_SWITCHING = 23,
  JOB_STATE_ACTIVATING = 24,
  JOB_STATE_OPENING = 25
};

/// "full", "incr", "diff", "export", "import", "none"; "unknown" for every other value. Never null.
const char* job_def_subtype_to_string(Job_Definition_Subtype subtype);

namespace kestrel
{
/// The word for a state in messages and on the console, such as "running"; "unknown" for a value not listed
/// above.
const char* job_state_text(Job_State state);
/// The state that job_state_text() calls so; false, with `state` untouched, when there is none.
[[nodiscard]] bool job_state_from_text(const std::string& text, Job_State& state);
/// "none", "backup", "restore", "standby", "storage"; "unknown" for every other value.
const char* job_def_type_to_string(Job_Definition_Type type);
/// The type or subtype with this name; false, with the result untouched, when there is none. Subtypes have
/// longer names too ("incremental", "differential", "cumulative", "point_in_time").
[[nodiscard]] bool job_def_type_from_text(const std::string& text, Job_Definition_Type& type);
[[nodiscard]] bool job_def_subtype_from_text(const std::string& text, Job_Definition_Subtype& subtype);
/// The names that the two know, as a list for messages.
std::string job_def_type_names();
std::string job_def_subtype_names();
/// True for a state that only a run under way has.
bool job_run_in_progress(Job_State state);
} // namespace kestrel

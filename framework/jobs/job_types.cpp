#include "jobs/job_types.h"

const char* job_def_subtype_to_string(Job_Definition_Subtype subtype)
{
  switch (subtype) {
  case JOB_DEFINITION_SUBTYPE_NONE:
    return "none";
  case JOB_DEFINITION_SUBTYPE_FULL:
    return "full";
  case JOB_DEFINITION_SUBTYPE_INCREMENTAL:
    return "incr";
  case JOB_DEFINITION_SUBTYPE_CUMULATIVE:
    return "diff";
  case JOB_DEFINITION_SUBTYPE_EXPORT:
    return "export";
  case JOB_DEFINITION_SUBTYPE_IMPORT:
    return "import";
  default:
    return "unknown";
  }
}

namespace kestrel
{
const char* job_def_type_to_string(Job_Definition_Type type)
{
  switch (type) {
  case JOB_DEFINITION_NONE:
    return "none";
  case JOB_DEFINITION_BACKUP:
    return "backup";
  case JOB_DEFINITION_RESTORE:
    return "restore";
  case JOB_DEFINITION_STANDBY:
    return "standby";
  case JOB_DEFINITION_STORAGE:
    return "storage";
  default:
    return "unknown";
  }
}

const char* job_state_to_string(Job_State state)
{
  static const char* const names[] = {"none",        "idle",     "starting",   "running",
                                      "pausing",     "paused",   "completing", "completed",
                                      "canceling",   "canceled", "error",      "created",
                                      "updated",     "deleting", "deleted",    "completed with errors",
                                      "dispatching", "skipped",  "expired",    "disabled",
                                      "aborting",    "creating", "syncing",    "switching",
                                      "activating",  "opening"};
  const unsigned index = static_cast<unsigned>(state);
  return index < sizeof names / sizeof names[0] ? names[index] : "unknown";
}

bool job_run_in_progress(Job_State state)
{
  switch (state) {
  case JOB_STATE_STARTING:
  case JOB_STATE_RUNNING:
  case JOB_STATE_PAUSING:
  case JOB_STATE_COMPLETING:
  case JOB_STATE_CANCELING:
  case JOB_STATE_DISPATCHING:
  case JOB_STATE_ABORTING:
  case JOB_STATE_SYNCING:
  case JOB_STATE_SWITCHING:
  case JOB_STATE_ACTIVATING:
  case JOB_STATE_OPENING:
    return true;
  default:
    return false;
  }
}
} // namespace kestrel

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
namespace
{
struct Name {
  const char* name;
  int value;
};

const Name type_names[] = {{"none", JOB_DEFINITION_NONE},
                           {"backup", JOB_DEFINITION_BACKUP},
                           {"restore", JOB_DEFINITION_RESTORE},
                           {"standby", JOB_DEFINITION_STANDBY},
                           {"storage", JOB_DEFINITION_STORAGE}};

const Name subtype_names[] = {{"none", JOB_DEFINITION_SUBTYPE_NONE},
                              {"full", JOB_DEFINITION_SUBTYPE_FULL},
                              {"incr", JOB_DEFINITION_SUBTYPE_INCREMENTAL},
                              {"incremental", JOB_DEFINITION_SUBTYPE_INCREMENTAL},
                              {"diff", JOB_DEFINITION_SUBTYPE_CUMULATIVE},
                              {"differential", JOB_DEFINITION_SUBTYPE_CUMULATIVE},
                              {"cumulative", JOB_DEFINITION_SUBTYPE_CUMULATIVE},
                              {"export", JOB_DEFINITION_SUBTYPE_EXPORT},
                              {"point_in_time", JOB_DEFINITION_SUBTYPE_POINT_IN_TIME},
                              {"import", JOB_DEFINITION_SUBTYPE_IMPORT}};

template <class Enum, std::size_t count>
bool find_name(const Name (&names)[count], const std::string& text, Enum& value)
{
  for (const Name& name : names) {
    if (text == name.name) {
      value = static_cast<Enum>(name.value);
      return true;
    }
  }
  return false;
}

template <std::size_t count> std::string list_names(const Name (&names)[count])
{
  std::string list;
  for (const Name& name : names) {
    list += list.empty() ? name.name : std::string(", ") + name.name;
  }
  return list;
}
} // namespace

bool job_def_type_from_text(const std::string& text, Job_Definition_Type& type)
{
  return find_name(type_names, text, type);
}

bool job_def_subtype_from_text(const std::string& text, Job_Definition_Subtype& subtype)
{
  return find_name(subtype_names, text, subtype);
}

std::string job_def_type_names()
{
  return list_names(type_names);
}

std::string job_def_subtype_names()
{
  return list_names(subtype_names);
}

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

namespace
{
const char* const state_names[] = {"none",        "idle",     "starting",   "running",
                                   "pausing",     "paused",   "completing", "completed",
                                   "canceling",   "canceled", "error",      "created",
                                   "updated",     "deleting", "deleted",    "completed with errors",
                                   "dispatching", "skipped",  "expired",    "disabled",
                                   "aborting",    "creating", "syncing",    "switching",
                                   "activating",  "opening"};
constexpr unsigned state_count = sizeof state_names / sizeof state_names[0];
} // namespace

const char* job_state_text(Job_State state)
{
  const unsigned index = static_cast<unsigned>(state);
  return index < state_count ? state_names[index] : "unknown";
}

bool job_state_from_text(const std::string& text, Job_State& state)
{
  for (unsigned index = 0; index < state_count; ++index) {
    if (text == state_names[index]) {
      state = static_cast<Job_State>(index);
      return true;
    }
  }
  return false;
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

#include "agent/run_lock.h"

#include "base/path_conf.h"
#include "base/uuid.h"
#include "jobs/job_definition.h"

namespace kestrel
{
std::string run_lock_path(const Job_Definition& definition)
{
  // Two runs of one definition would share the directory of their files.
  const bool import =
      definition.type() == JOB_DEFINITION_RESTORE && definition.subtype() == JOB_DEFINITION_SUBTYPE_IMPORT;
  const std::string key = definition.source() && !import ? definition.source()->id() : definition.id();
  return run_lock_path(key);
}

std::string run_lock_path(const std::string& source_id)
{
  return Path_Conf("/var/opt/tarnvik/kestrel3/$COMPONENT", "locks")
      .path((name_uuid(source_id) + ".lock").c_str());
}
} // namespace kestrel

#include "oscar/oscar_job_creator.h"

#include "base/key_value.h"
#include "job/default_job_t.h"
#include "oscar/backup_executor.h"
#include "oscar/brcmd_backup_executor.h"
#include "oscar/brcmd_restore_executor.h"
#include "oscar/restore_executor.h"

#include <cerrno>
#include <new>

namespace oscar
{
namespace
{
const Key2_Value_T<Job_Definition_Subtype> level_names[] = {{"full", 4, JOB_DEFINITION_SUBTYPE_FULL},
                                                            {"incr", 4, JOB_DEFINITION_SUBTYPE_INCREMENTAL},
                                                            {"diff", 4, JOB_DEFINITION_SUBTYPE_CUMULATIVE},
                                                            {nullptr, 0, JOB_DEFINITION_SUBTYPE_FULL}};

typedef ACE_Intrusive_Auto_Ptr<Job> Job_Ptr;

template <class Executor> Job_Ptr make_job(const Job_Definition_Ptr& def)
{
  Job* job = new (std::nothrow) Controllable_Job_T<Executor>(def);
  if (!job) {
    errno = ENOMEM;
    return Job_Ptr();
  }
  return Job_Ptr(job, false); // takes over the reference that a new job has
}
} // namespace

ACE_Intrusive_Auto_Ptr<Job>
Oscar_Job_Creator::create(ACE_Refcounted_Auto_Ptr<Job_Definition, ACE_Thread_Mutex> def)
{
  switch (def->type()) {
  case JOB_DEFINITION_BACKUP:
    // Every subtype but export is physical; the executor looks at the level itself.
    return def->subtype() == JOB_DEFINITION_SUBTYPE_EXPORT ? make_job<Backup_Executor>(def)
                                                           : make_job<Oscar_Brcmd_Backup_Executor>(def);
  case JOB_DEFINITION_RESTORE:
    return def->subtype() == JOB_DEFINITION_SUBTYPE_IMPORT ? make_job<Restore_Executor>(def)
                                                           : make_job<Oscar_Brcmd_Restore_Executor>(def);
  default:
    return Job_Ptr();
  }
}

const char* type_to_cmd_name(Job_Definition_Subtype subtype)
{
  return get_key_value_entry(level_names, subtype);
}
} // namespace oscar

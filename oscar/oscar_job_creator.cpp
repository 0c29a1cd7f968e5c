#include "oscar/oscar_job_creator.h"

#include "base/key_value.h"
#include "job/default_job_t.h"
#include "oscar/brcmd_backup_executor.h"
#include "oscar/brcmd_restore_executor.h"

#include <ace/Log_Msg.h>

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

Job_Ptr refuse(const Job_Definition& def)
{
  ACE_ERROR((LM_ERROR,
             "(%P|%t) Oscar_Job_Creator::create: job definition %s (%s) is not run: this build of the module "
             "has no export and import jobs; use a physical backup or restore\n",
             def.id().c_str(), job_def_subtype_to_string(def.subtype())));
  errno = ENOSYS;
  return Job_Ptr();
}
} // namespace

ACE_Intrusive_Auto_Ptr<Job>
Oscar_Job_Creator::create(ACE_Refcounted_Auto_Ptr<Job_Definition, ACE_Thread_Mutex> def)
{
  switch (def->type()) {
  case JOB_DEFINITION_BACKUP:
    // Every subtype but export is physical; the executor looks at the level itself.
    return def->subtype() == JOB_DEFINITION_SUBTYPE_EXPORT ? refuse(*def)
                                                           : make_job<Oscar_Brcmd_Backup_Executor>(def);
  case JOB_DEFINITION_RESTORE:
    return def->subtype() == JOB_DEFINITION_SUBTYPE_IMPORT ? refuse(*def)
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

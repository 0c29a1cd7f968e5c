#pragma once

#include "jobs/job_creator.h"

namespace oscar
{
/// Makes the job object of a backup or restore definition.
/// Threads:   create() from any thread; the object has no state.
/// Ownership: the job starts with one reference, which the result holds.
/// Errors:    an empty pointer: for a type that is neither backup nor restore (errno untouched), and without
///            memory (errno ENOMEM). Exceptions of a job's constructor pass on.
class Oscar_Job_Creator : public Job_Creator
{
public:
  ACE_Intrusive_Auto_Ptr<Job> create(ACE_Refcounted_Auto_Ptr<Job_Definition, ACE_Thread_Mutex> def) override;
};

/// The word for a backup level on brcmd's command line and in the catalog: "full", "incr" or "diff"; null for
/// any other subtype. Static storage.
const char* type_to_cmd_name(Job_Definition_Subtype subtype);
} // namespace oscar

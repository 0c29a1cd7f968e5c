#pragma once

#include "jobs/job.h"
#include "jobs/job_definition.h"

#include <ace/Intrusive_Auto_Ptr.h>

/// Makes a module's jobs. One object per loaded module.
/// Threads: create() from any thread, after init().
///
/// The order of the virtual operations is part of the contract with modules.
class Job_Creator
{
public:
  virtual ~Job_Creator();
  /// Gets the words of the module's configuration line, without a program name. 0, or -1 to refuse the
  /// module.
  virtual int init(int argc, char** argv);
  virtual int fini();
  /// The job for a definition, with one reference that the result holds; an empty pointer when the module
  /// does not run such jobs (errno untouched) or when there is no memory (errno ENOMEM).
  virtual ACE_Intrusive_Auto_Ptr<Job> create(ACE_Refcounted_Auto_Ptr<Job_Definition, ACE_Thread_Mutex> def);
};

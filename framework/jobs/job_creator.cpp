#include "jobs/job_creator.h"

Job_Creator::~Job_Creator() = default;

int Job_Creator::init(int, char**)
{
  return 0;
}

int Job_Creator::fini()
{
  return 0;
}

ACE_Intrusive_Auto_Ptr<Job> Job_Creator::create(ACE_Refcounted_Auto_Ptr<Job_Definition, ACE_Thread_Mutex>)
{
  return ACE_Intrusive_Auto_Ptr<Job>();
}

#pragma once

#include "jobs/job.h"

#include <memory>

namespace kestrel
{
class Job_Log;

/// What the calling thread carries for jobs until it ends: where its log lines go, and the jobs it keeps
/// alive. Released when all code of the thread, the module's included, is over.
void set_thread_job_log(std::shared_ptr<Job_Log> log);
void keep_until_thread_end(Job_Hold hold);
/// Gives up what the calling thread keeps of this job.
void release_from_thread(const Job* job);

/// How many holds of any job there are.
void count_hold(int change);
unsigned count_holds();
/// Waits until there is none (false when the time is over first), and then until the threads that kept some
/// are gone, with everything that libraries destroy at a thread's end.
bool wait_no_holds(int64_t timeout_msec);
} // namespace kestrel

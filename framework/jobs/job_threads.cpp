#include "jobs/job_threads.h"

#include "base/log.h"
#include "jobs/job_log.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <utility>
#include <vector>

namespace kestrel
{
namespace
{
struct Hold_Count {
  std::mutex mutex;
  std::condition_variable changed;
  unsigned count = 0;
};

// Never destroyed: threads may still end while the process exits.
Hold_Count& holds()
{
  static Hold_Count* const count = new Hold_Count;
  return *count;
}

struct Thread_Jobs {
  std::shared_ptr<Job_Log> log;
  std::vector<Job_Hold> kept;

  ~Thread_Jobs()
  {
    // The last reference may go here, and the destructor of a job logs.
    kept.clear();
    if (log) {
      set_thread_log_callback(nullptr);
    }
  }
};

thread_local Thread_Jobs thread_jobs;
} // namespace

void set_thread_job_log(std::shared_ptr<Job_Log> log)
{
  set_thread_log_callback(log.get());
  thread_jobs.log = std::move(log);
}

void keep_until_thread_end(Job_Hold hold)
{
  thread_jobs.kept.push_back(std::move(hold));
}

void release_from_thread(const Job* job)
{
  std::vector<Job_Hold>& kept = thread_jobs.kept;
  kept.erase(
      std::remove_if(kept.begin(), kept.end(), [job](const Job_Hold& hold) { return hold.get() == job; }),
      kept.end());
}

void count_hold(int change)
{
  Hold_Count& all = holds();
  const std::lock_guard<std::mutex> guard(all.mutex);
  all.count += change;
  all.changed.notify_all();
}

unsigned count_holds()
{
  Hold_Count& all = holds();
  const std::lock_guard<std::mutex> guard(all.mutex);
  return all.count;
}

bool wait_no_holds(int64_t timeout_msec)
{
  Hold_Count& all = holds();
  std::unique_lock<std::mutex> guard(all.mutex);
  const auto none = [&all] { return all.count == 0; };
  if (timeout_msec < 0) {
    all.changed.wait(guard, none);
    return true;
  }
  return all.changed.wait_for(guard, std::chrono::milliseconds(timeout_msec), none);
}
} // namespace kestrel

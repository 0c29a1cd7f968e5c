#include "jobs/job_threads.h"

#include "base/log.h"
#include "jobs/job_log.h"

#include <ace/Log_Msg.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>
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
  // Threads that have let go of their jobs. What libraries keep for a thread is destroyed after that.
  std::vector<pid_t> leaving;
};

/// An end that takes longer hangs, and waiting on would hang too.
const std::chrono::seconds LEAVING_LIMIT(30);

// Never destroyed: threads may still end while the process exits.
Hold_Count& holds()
{
  static Hold_Count* const count = new Hold_Count;
  return *count;
}

pid_t this_thread()
{
  return static_cast<pid_t>(::syscall(SYS_gettid));
}

bool thread_exists(pid_t thread)
{
  return ::syscall(SYS_tgkill, ::getpid(), thread, 0) == 0 || errno != ESRCH;
}

void note_leaving()
{
  Hold_Count& all = holds();
  const std::lock_guard<std::mutex> guard(all.mutex);
  all.leaving.erase(std::remove_if(all.leaving.begin(), all.leaving.end(),
                                   [](pid_t thread) { return !thread_exists(thread); }),
                    all.leaving.end());
  all.leaving.push_back(this_thread());
}

/// A process that exits while a thread still ends would pull the libraries' memory away under it.
void wait_leaving()
{
  std::vector<pid_t> threads;
  {
    Hold_Count& all = holds();
    const std::lock_guard<std::mutex> guard(all.mutex);
    threads.swap(all.leaving);
  }
  const auto limit = std::chrono::steady_clock::now() + LEAVING_LIMIT;
  for (const pid_t thread : threads) {
    if (thread == this_thread())
      continue;
    while (thread_exists(thread) && std::chrono::steady_clock::now() < limit)
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    if (thread_exists(thread))
      ACE_ERROR(
          (LM_WARNING, "(%P|%t) thread %d of a job does not end; nothing waits for it any longer\n", thread));
  }
}

struct Thread_Jobs {
  std::shared_ptr<Job_Log> log;
  std::vector<Job_Hold> kept;

  ~Thread_Jobs()
  {
    if (!kept.empty())
      note_leaving();
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
  {
    Hold_Count& all = holds();
    std::unique_lock<std::mutex> guard(all.mutex);
    const auto none = [&all] { return all.count == 0; };
    if (timeout_msec < 0)
      all.changed.wait(guard, none);
    else if (!all.changed.wait_for(guard, std::chrono::milliseconds(timeout_msec), none))
      return false;
  }
  wait_leaving();
  return true;
}
} // namespace kestrel

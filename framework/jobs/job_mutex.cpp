#include "jobs/job_mutex.h"

#include <map>
#include <mutex>
#include <new>

namespace
{
typedef std::map<std::string, std::shared_ptr<ACE_Thread_Mutex>> Mutex_Map;

std::mutex map_mutex;

// Never destroyed: jobs may still run while the process exits.
Mutex_Map& mutexes()
{
  static Mutex_Map* const map = new Mutex_Map;
  return *map;
}
} // namespace

std::shared_ptr<ACE_Thread_Mutex> Job_Mutex::get(const std::string& source_id)
{
  const std::lock_guard<std::mutex> guard(map_mutex);
  try {
    std::shared_ptr<ACE_Thread_Mutex>& mutex = mutexes()[source_id];
    if (!mutex) {
      mutex = std::make_shared<ACE_Thread_Mutex>();
    }
    return mutex;
  } catch (const std::bad_alloc&) {
    return std::shared_ptr<ACE_Thread_Mutex>();
  }
}

namespace kestrel
{
Source_Lock::Source_Lock(const std::string& source_id) : mutex_(Job_Mutex::get(source_id))
{
  if (mutex_ && mutex_->acquire() != 0)
    mutex_.reset();
}

Source_Lock::~Source_Lock()
{
  if (mutex_)
    mutex_->release();
}
} // namespace kestrel

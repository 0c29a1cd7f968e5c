#pragma once

#include <ace/Thread_Mutex.h>

#include <memory>
#include <string>

/// One mutex for each job source in this process: two jobs on one source run one after the other.
/// Threads:   any.
/// Ownership: the mutexes are never freed, so a guard may outlive the pointer it was made from; their number
///            is that of the sources ever used.
class Job_Mutex
{
public:
  /// Never null but when memory is out.
  static std::shared_ptr<ACE_Thread_Mutex> get(const std::string& source_id);
};

namespace kestrel
{
/// Holds the mutex of a job source for a scope; the constructor waits for it. One thread.
class Source_Lock
{
public:
  explicit Source_Lock(const std::string& source_id);
  ~Source_Lock();
  Source_Lock(const Source_Lock&) = delete;
  Source_Lock& operator=(const Source_Lock&) = delete;
  /// False when memory is out: the source is not locked then.
  bool held() const { return mutex_ != nullptr; }

private:
  std::shared_ptr<ACE_Thread_Mutex> mutex_;
};
} // namespace kestrel

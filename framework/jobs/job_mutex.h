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

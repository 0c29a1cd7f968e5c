#include "support/fault_process_api.h"

#include <cerrno>

namespace kestrel_test
{
Fault_Process_Api::Fault_Process_Api() : scope_(*this) {}

void Fault_Process_Api::fail_spawn(unsigned number, int error)
{
  std::lock_guard<std::mutex> guard(mutex_);
  left_ = number;
  error_ = error;
  all_ = false;
}

void Fault_Process_Api::fail_all(int error)
{
  std::lock_guard<std::mutex> guard(mutex_);
  error_ = error;
  all_ = true;
}

std::vector<kestrel::Spawn_Request> Fault_Process_Api::requests() const
{
  std::lock_guard<std::mutex> guard(mutex_);
  return requests_;
}

pid_t Fault_Process_Api::spawn(const kestrel::Spawn_Request& request)
{
  {
    std::lock_guard<std::mutex> guard(mutex_);
    requests_.push_back(request);
    if (all_ || (left_ > 0 && --left_ == 0)) {
      errno = error_;
      return -1;
    }
  }
  return Process_Api::spawn(request);
}
} // namespace kestrel_test

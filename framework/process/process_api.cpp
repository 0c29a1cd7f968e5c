#include "process/process_api.h"

#include <atomic>
#include <cerrno>

namespace kestrel
{
namespace
{
Process_Api& real_process_api()
{
  static Process_Api* const instance = new Process_Api;
  return *instance;
}

std::atomic<Process_Api*> replacement_process_api{nullptr};
} // namespace

Process_Api::~Process_Api() {}

pid_t Process_Api::spawn(const Spawn_Request&)
{
  errno = ENOSYS;
  return -1;
}

Process_Api& process_api()
{
  Process_Api* const replacement = replacement_process_api.load(std::memory_order_acquire);
  return replacement ? *replacement : real_process_api();
}

Scoped_Process_Api::Scoped_Process_Api(Process_Api& replacement)
    : previous_(replacement_process_api.exchange(&replacement))
{
}

Scoped_Process_Api::~Scoped_Process_Api() { replacement_process_api.store(previous_); }
} // namespace kestrel

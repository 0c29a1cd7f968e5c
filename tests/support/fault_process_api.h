#pragma once

#include "process/process_api.h"

#include <mutex>
#include <vector>

namespace kestrel_test
{
/// The real process API, except that chosen starts fail. Installed process-wide while it lives. Keeps every
/// request, so a test sees the arguments and the environment that a tool was to get.
class Fault_Process_Api : public kestrel::Process_Api
{
public:
  Fault_Process_Api();

  /// The number-th spawn from now on (from 1) fails with this errno.
  void fail_spawn(unsigned number, int error);
  /// All spawns from now on fail with this errno.
  void fail_all(int error);
  std::vector<kestrel::Spawn_Request> requests() const;

  pid_t spawn(const kestrel::Spawn_Request& request) override;

private:
  mutable std::mutex mutex_;
  std::vector<kestrel::Spawn_Request> requests_;
  unsigned left_ = 0;
  int error_ = 0;
  bool all_ = false;
  kestrel::Scoped_Process_Api scope_;
};
} // namespace kestrel_test

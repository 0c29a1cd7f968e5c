#pragma once

#include <condition_variable>
#include <functional>
#include <mutex>
#include <sys/types.h>

namespace kestrel
{
/// One thread that lives as long as the process and runs short tasks for others, one after the other.
/// Children ask the kernel to be killed with their parent, and the kernel means the thread that forked them:
/// threads of jobs end too early for that.
/// Threads: any. A process that itself forked without exec gets a new thread at its first task.
class Spawner_Thread
{
public:
  static Spawner_Thread& instance();

  /// Runs the task on the thread and returns its result, with the task's errno. When the thread cannot be
  /// started: -1 and errno.
  pid_t run(const std::function<pid_t()>& task);

private:
  Spawner_Thread() {}
  bool start();
  static void* serve(void* self);

  std::mutex turn_; ///< held by the caller whose task runs
  std::mutex mutex_;
  std::condition_variable changed_;
  const std::function<pid_t()>* task_ = nullptr;
  bool done_ = false;
  pid_t result_ = -1;
  int error_ = 0;
  pid_t owner_ = -1; ///< the process whose thread runs
};
} // namespace kestrel

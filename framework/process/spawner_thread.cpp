#include "process/spawner_thread.h"

#include <cerrno>
#include <csignal>
#include <pthread.h>
#include <unistd.h>

namespace kestrel
{
Spawner_Thread& Spawner_Thread::instance()
{
  // Never destroyed, as its thread never ends.
  static Spawner_Thread* const spawner = new Spawner_Thread;
  return *spawner;
}

bool Spawner_Thread::start()
{
  if (owner_ == ::getpid())
    return true;
  // Signals of the process are the other threads' business.
  sigset_t all;
  sigset_t previous;
  ::sigfillset(&all);
  ::pthread_sigmask(SIG_SETMASK, &all, &previous);
  pthread_t thread;
  const int error = ::pthread_create(&thread, nullptr, serve, this);
  ::pthread_sigmask(SIG_SETMASK, &previous, nullptr);
  if (error != 0) {
    errno = error;
    return false;
  }
  ::pthread_detach(thread);
  owner_ = ::getpid();
  return true;
}

pid_t Spawner_Thread::run(const std::function<pid_t()>& task)
{
  std::lock_guard<std::mutex> turn(turn_);
  if (!start())
    return -1;
  std::unique_lock<std::mutex> lock(mutex_);
  done_ = false;
  task_ = &task;
  changed_.notify_all();
  changed_.wait(lock, [this] { return done_; });
  errno = error_;
  return result_;
}

void* Spawner_Thread::serve(void* self)
{
  Spawner_Thread& spawner = *static_cast<Spawner_Thread*>(self);
  std::unique_lock<std::mutex> lock(spawner.mutex_);
  for (;;) {
    spawner.changed_.wait(lock, [&] { return spawner.task_ != nullptr; });
    const std::function<pid_t()>* const task = spawner.task_;
    lock.unlock();
    const pid_t result = (*task)();
    const int error = errno;
    lock.lock();
    spawner.task_ = nullptr;
    spawner.result_ = result;
    spawner.error_ = error;
    spawner.done_ = true;
    spawner.changed_.notify_all();
  }
  return nullptr;
}
} // namespace kestrel

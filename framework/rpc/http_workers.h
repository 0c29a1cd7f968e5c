#pragma once

#include "base/heartbeat.h"

#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace kestrel
{
/// The threads that answer requests, apart from those that read and write.
/// Threads:   post() from any; start() and stop() by the owner.
/// Ownership: owns its threads and what waits for them.
/// Errors:    post() false: the queue is full, or it is stopped; the task is dropped. A task must not throw.
class HTTP_Workers
{
public:
  ~HTTP_Workers() { stop(); }

  /// `heartbeats` hears of it while any of the threads waits for a task, begins one or ends one: it counts as stuck when
  /// all have been at one request for very long, not when one has. Null: nobody watches; else not owned.
  void start(unsigned threads, unsigned queue_limit, Heartbeats* heartbeats = nullptr);
  [[nodiscard]] bool post(std::function<void()> task);
  /// The same, however full the queue is: for what must follow an answered request.
  [[nodiscard]] bool post_always(std::function<void()> task);
  /// Waits for the tasks that run. Those that wait are done too.
  void stop();

private:
  bool add(std::function<void()> task, size_t limit);
  void run();

  std::mutex mutex_;
  std::condition_variable added_;
  std::deque<std::function<void()>> tasks_;
  size_t queue_limit_ = 0;
  bool stopped_ = true;
  std::unique_ptr<Heartbeat> heartbeat_;
  std::vector<std::thread> threads_;
};
} // namespace kestrel

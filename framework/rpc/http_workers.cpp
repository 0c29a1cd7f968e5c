#include "rpc/http_workers.h"

#include <chrono>
#include <cstddef>

namespace kestrel
{
namespace
{
const std::chrono::seconds IDLE_TURN(5);
/// Longer than the longest request.
constexpr int64_t STUCK_MSEC = 15 * 60 * 1000;
} // namespace

void HTTP_Workers::start(unsigned threads, unsigned queue_limit, Heartbeats* heartbeats)
{
  heartbeat_ = std::make_unique<Heartbeat>(heartbeats, "requests", STUCK_MSEC);
  queue_limit_ = queue_limit;
  stopped_ = false;
  for (unsigned i = 0; i < threads; ++i)
    threads_.emplace_back([this] { run(); });
}

bool HTTP_Workers::post(std::function<void()> task)
{
  return add(std::move(task), queue_limit_);
}

bool HTTP_Workers::post_always(std::function<void()> task)
{
  return add(std::move(task), SIZE_MAX);
}

bool HTTP_Workers::add(std::function<void()> task, size_t limit)
{
  {
    std::lock_guard<std::mutex> guard(mutex_);
    if (stopped_ || tasks_.size() >= limit)
      return false;
    tasks_.push_back(std::move(task));
  }
  added_.notify_one();
  return true;
}

void HTTP_Workers::stop()
{
  {
    std::lock_guard<std::mutex> guard(mutex_);
    stopped_ = true;
  }
  added_.notify_all();
  for (std::thread& thread : threads_)
    thread.join();
  threads_.clear();
  heartbeat_.reset();
}

void HTTP_Workers::run()
{
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    heartbeat_->beat();
    if (!added_.wait_for(lock, IDLE_TURN, [this] { return stopped_ || !tasks_.empty(); }))
      continue;
    if (tasks_.empty())
      return;
    std::function<void()> task = std::move(tasks_.front());
    tasks_.pop_front();
    heartbeat_->beat();
    lock.unlock();
    task();
    task = nullptr; // what it owns goes before the lock is taken
    lock.lock();
  }
}
} // namespace kestrel

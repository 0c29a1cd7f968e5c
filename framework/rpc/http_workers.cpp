#include "rpc/http_workers.h"

#include <cstddef>

namespace kestrel
{
void HTTP_Workers::start(unsigned threads, unsigned queue_limit)
{
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
}

void HTTP_Workers::run()
{
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    added_.wait(lock, [this] { return stopped_ || !tasks_.empty(); });
    if (tasks_.empty())
      return;
    std::function<void()> task = std::move(tasks_.front());
    tasks_.pop_front();
    lock.unlock();
    task();
    task = nullptr; // what it owns goes before the lock is taken
    lock.lock();
  }
}
} // namespace kestrel

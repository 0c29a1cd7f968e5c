#include "server/host_workers.h"

#include "base/queue_watch.h"

#include <ace/Log_Msg.h>

#include <condition_variable>
#include <deque>
#include <exception>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

namespace kestrel
{
namespace
{
/// A task waits for its host for less than a minute at a time, and takes several turns at most.
constexpr int64_t STUCK_MSEC = 15 * 60 * 1000;
} // namespace

struct Host_Workers::State {
  struct Host {
    std::deque<std::function<void()>> waiting;
    unsigned running = 0;
    bool listed = false; ///< stands in `ready`
  };

  unsigned thread_limit = 0;
  unsigned per_host = 0;
  std::mutex mutex;
  std::condition_variable changed;
  std::map<std::string, Host> hosts;
  std::deque<std::string> ready; ///< hosts that may run another task, in turn
  std::vector<std::thread> threads;
  unsigned idle = 0;
  Queue_Watch watch;
  bool stopping = false;

  void list(const std::string& name, Host& host)
  {
    if (host.listed || host.waiting.empty() || host.running >= per_host)
      return;
    host.listed = true;
    ready.push_back(name);
    watch.look(true);
    changed.notify_one();
  }

  /// With the lock held on entry and exit.
  void run_one(std::unique_lock<std::mutex>& lock)
  {
    const std::string name = ready.front();
    ready.pop_front();
    watch.taken(!ready.empty());
    Host& host = hosts[name];
    host.listed = false;
    std::function<void()> task = std::move(host.waiting.front());
    host.waiting.pop_front();
    ++host.running;
    list(name, host);
    lock.unlock();
    try {
      task();
    } catch (const std::exception& failure) {
      ACE_ERROR((LM_ERROR, "(%P|%t) Host_Workers: a task for host %C failed: %C\n", name.c_str(),
                 failure.what()));
    }
    task = nullptr; // what it holds may end here, and must not do so under the lock
    lock.lock();
    --host.running;
    list(name, host);
    if (host.running == 0 && host.waiting.empty())
      hosts.erase(name);
  }

  void work()
  {
    std::unique_lock<std::mutex> lock(mutex);
    for (;;) {
      ++idle;
      changed.wait(lock, [this] { return stopping || !ready.empty(); });
      --idle;
      if (stopping)
        return;
      run_one(lock);
    }
  }
};

Host_Workers::Host_Workers(unsigned threads, unsigned per_host) : state_(new State)
{
  state_->thread_limit = threads;
  state_->per_host = per_host;
}

Host_Workers::~Host_Workers()
{
  stop();
}

void Host_Workers::watch(Heartbeats* heartbeats, const std::string& name)
{
  const std::lock_guard<std::mutex> guard(state_->mutex);
  state_->watch.begin(heartbeats, name, STUCK_MSEC);
}

void Host_Workers::add(const std::string& host_uuid, std::function<void()> task)
{
  const std::lock_guard<std::mutex> guard(state_->mutex);
  if (state_->stopping)
    return;
  State::Host& host = state_->hosts[host_uuid];
  host.waiting.push_back(std::move(task));
  state_->list(host_uuid, host);
  if (state_->idle < state_->ready.size() && state_->threads.size() < state_->thread_limit)
    state_->threads.emplace_back([state = state_.get()] { state->work(); });
}

void Host_Workers::stop()
{
  std::vector<std::thread> threads;
  {
    const std::lock_guard<std::mutex> guard(state_->mutex);
    state_->stopping = true;
    state_->watch.end();
    threads.swap(state_->threads);
    state_->changed.notify_all();
  }
  for (std::thread& thread : threads)
    thread.join();
}
} // namespace kestrel

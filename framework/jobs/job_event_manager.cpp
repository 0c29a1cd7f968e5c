#include "jobs/job_event.h"

#include <ace/Log_Msg.h>
#include <ace/OS_NS_sys_time.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <deque>
#include <exception>
#include <mutex>
#include <new>
#include <thread>
#include <vector>

namespace
{
/// A listener that hangs must not eat the memory of the agent.
const std::size_t MAX_WAITING_EVENTS = 4096;

Job_Event_Manager* the_manager()
{
  // Never destroyed, only closed: a detached thread may put events while the process exits.
  static Job_Event_Manager* const manager = [] {
    Job_Event_Manager* const made = new Job_Event_Manager;
    std::atexit([] { Job_Event_Manager::instance()->close(); });
    return made;
  }();
  return manager;
}
} // namespace

struct Job_Event_Manager::Queue {
  std::mutex mutex;
  std::condition_variable changed; // an event came or went, a delivery ended, the queue closed
  std::deque<std::unique_ptr<Job_Event>> events;
  std::vector<kestrel::Job_Event_Listener*> listeners;
  kestrel::Job_Event_Listener* delivering = nullptr;
  unsigned long long put = 0;
  unsigned long long delivered = 0;
  bool closed = false;
  std::thread consumer;
  std::thread::id consumer_id;
  std::mutex close_mutex; // one thread joins the consumer

  bool on_consumer() const { return std::this_thread::get_id() == consumer_id; }
  bool wait_for_room(std::unique_lock<std::mutex>& guard, const ACE_Time_Value* timeout);
  void consume();
  void deliver(std::unique_lock<std::mutex>& guard, const Job_Event& event);
};

/// False when the time was over first.
bool Job_Event_Manager::Queue::wait_for_room(std::unique_lock<std::mutex>& guard,
                                             const ACE_Time_Value* timeout)
{
  // A listener that puts an event cannot wait for itself.
  const auto room = [this] { return closed || events.size() < MAX_WAITING_EVENTS || on_consumer(); };
  if (!timeout) {
    changed.wait(guard, room);
    return true;
  }
  ACE_Time_Value left = *timeout - ACE_OS::gettimeofday();
  if (left < ACE_Time_Value::zero) {
    left = ACE_Time_Value::zero;
  }
  const auto left_usec = std::chrono::seconds(left.sec()) + std::chrono::microseconds(left.usec());
  return changed.wait_for(guard, left_usec, room);
}

void Job_Event_Manager::Queue::consume()
{
  std::unique_lock<std::mutex> guard(mutex);
  consumer_id = std::this_thread::get_id();
  for (;;) {
    changed.wait(guard, [this] { return closed || !events.empty(); });
    if (events.empty()) {
      return; // closed, and all delivered
    }
    const std::unique_ptr<Job_Event> event = std::move(events.front());
    events.pop_front();
    changed.notify_all();
    deliver(guard, *event);
    ++delivered;
    changed.notify_all();
  }
}

/// Called with the lock, which is free during each call. A listener removed meanwhile is not called any more.
void Job_Event_Manager::Queue::deliver(std::unique_lock<std::mutex>& guard, const Job_Event& event)
{
  const std::vector<kestrel::Job_Event_Listener*> present = listeners;
  for (kestrel::Job_Event_Listener* listener : present) {
    if (std::find(listeners.begin(), listeners.end(), listener) == listeners.end()) {
      continue;
    }
    delivering = listener;
    guard.unlock();
    try {
      event.deliver(*listener);
    } catch (const std::exception& e) {
      ACE_ERROR((LM_ERROR, "(%P|%t) Job_Event_Manager: a listener threw: %C\n", e.what()));
    } catch (...) {
      ACE_ERROR((LM_ERROR, "(%P|%t) Job_Event_Manager: a listener threw\n"));
    }
    guard.lock();
    delivering = nullptr;
    changed.notify_all();
  }
}

Job_Event_Manager* Job_Event_Manager::instance()
{
  return the_manager();
}

Job_Event_Manager::Job_Event_Manager() : queue_(new Queue) {}

Job_Event_Manager::~Job_Event_Manager()
{
  close();
}

int Job_Event_Manager::putq(std::unique_ptr<Job_Event> event, ACE_Time_Value* timeout)
{
  if (!event) {
    errno = EINVAL;
    return -1;
  }
  try {
    std::unique_lock<std::mutex> guard(queue_->mutex);
    if (!queue_->wait_for_room(guard, timeout)) {
      errno = EWOULDBLOCK;
      return -1;
    }
    return enqueue(std::move(event));
  } catch (const std::exception&) {
    errno = ENOMEM; // or no thread for the consumer
    return -1;
  }
}

int Job_Event_Manager::post(std::unique_ptr<Job_Event> event)
{
  if (!event) {
    errno = EINVAL;
    return -1;
  }
  try {
    const std::lock_guard<std::mutex> guard(queue_->mutex);
    return enqueue(std::move(event)) < 0 ? -1 : 0;
  } catch (const std::exception&) {
    errno = ENOMEM;
    return -1;
  }
}

/// Called with the lock; may throw.
int Job_Event_Manager::enqueue(std::unique_ptr<Job_Event> event)
{
  if (queue_->closed) {
    errno = ESHUTDOWN;
    return -1;
  }
  if (!queue_->consumer.joinable()) {
    queue_->consumer = std::thread([this] { queue_->consume(); });
  }
  queue_->events.push_back(std::move(event));
  ++queue_->put;
  queue_->changed.notify_all();
  return static_cast<int>(queue_->events.size());
}

void Job_Event_Manager::add_listener(kestrel::Job_Event_Listener* listener)
{
  const std::lock_guard<std::mutex> guard(queue_->mutex);
  queue_->listeners.push_back(listener);
}

void Job_Event_Manager::remove_listener(kestrel::Job_Event_Listener* listener)
{
  std::unique_lock<std::mutex> guard(queue_->mutex);
  std::vector<kestrel::Job_Event_Listener*>& all = queue_->listeners;
  all.erase(std::remove(all.begin(), all.end(), listener), all.end());
  queue_->changed.wait(guard, [&] { return queue_->delivering != listener || queue_->on_consumer(); });
}

void Job_Event_Manager::flush()
{
  std::unique_lock<std::mutex> guard(queue_->mutex);
  const unsigned long long wanted = queue_->put;
  queue_->changed.wait(guard, [&] { return queue_->delivered >= wanted; });
}

void Job_Event_Manager::close()
{
  {
    const std::lock_guard<std::mutex> guard(queue_->mutex);
    queue_->closed = true;
    queue_->changed.notify_all();
    if (queue_->on_consumer()) {
      return; // a listener cannot wait for itself; the consumer ends when the queue is empty
    }
  }
  const std::lock_guard<std::mutex> guard(queue_->close_mutex);
  if (queue_->consumer.joinable()) {
    queue_->consumer.join();
  }
}

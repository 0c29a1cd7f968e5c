#include "agent/job_notices.h"

#include <ace/Log_Msg.h>

#include <exception>

namespace kestrel
{
Job_Notices::~Job_Notices()
{
  stop();
}

void Job_Notices::start()
{
  if (thread_.joinable())
    return;
  stopping_ = false;
  thread_ = std::thread([this] { run(); });
}

void Job_Notices::stop()
{
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    stopping_ = true;
    changed_.notify_all();
  }
  if (thread_.joinable())
    thread_.join();
}

template <class Listener> void Job_Notices::replace(Listener& place, Listener listener)
{
  const std::lock_guard<std::recursive_mutex> guard(calling_);
  place = std::move(listener);
}

void Job_Notices::set_listener(std::function<void(const Job_Notice&)> listener)
{
  replace(listener_, std::move(listener));
}

void Job_Notices::set_history_listener(std::function<void()> listener)
{
  replace(history_listener_, std::move(listener));
}

void Job_Notices::put_state(const Job_Notice& notice)
{
  put(Waiting{notice, false});
}

void Job_Notices::put_progress(const Job_Notice& notice)
{
  put(Waiting{notice, true});
}

void Job_Notices::put_history()
{
  const std::lock_guard<std::mutex> guard(mutex_);
  history_ = true;
  changed_.notify_all();
}

void Job_Notices::put(Waiting waiting)
{
  const std::lock_guard<std::mutex> guard(mutex_);
  changed_.notify_all();
  if (waiting.progress && !waiting_.empty() && waiting_.back().progress &&
      waiting_.back().notice.run_id == waiting.notice.run_id) {
    waiting_.back() = std::move(waiting);
    return;
  }
  if (waiting_.size() >= max_waiting)
    waiting_.pop_front();
  waiting_.push_back(std::move(waiting));
}

void Job_Notices::run()
{
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    changed_.wait(lock, [this] { return stopping_ || history_ || !waiting_.empty(); });
    if (waiting_.empty() && !history_)
      return;
    std::deque<Waiting> taken;
    taken.swap(waiting_);
    const bool history = history_;
    history_ = false;
    lock.unlock();
    try {
      const std::lock_guard<std::recursive_mutex> calling(calling_);
      for (const Waiting& each : taken) {
        // A copy, as a listener may replace itself.
        const auto listener = listener_;
        if (listener)
          listener(each.notice);
      }
      const auto history_listener = history_listener_;
      if (history && history_listener)
        history_listener();
    } catch (const std::exception& problem) {
      ACE_ERROR((LM_ERROR, "(%P|%t) Job_Notices::run: a listener failed: %C\n", problem.what()));
    }
    lock.lock();
  }
}
} // namespace kestrel

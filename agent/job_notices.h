#pragma once

#include "agent/agent_jobs.h"

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

namespace kestrel
{
/// Takes notices from the threads of jobs and hands them to listeners on a thread of its own, so that a slow
/// listener holds up no job. Progress that a listener has not seen yet is replaced by newer progress of the
/// same run; when max_waiting notices wait, the oldest goes. Threads: any.
class Job_Notices
{
public:
  static constexpr std::size_t max_waiting = 10000;

  Job_Notices() = default;
  ~Job_Notices();
  Job_Notices(const Job_Notices&) = delete;
  Job_Notices& operator=(const Job_Notices&) = delete;

  void start();
  /// Delivers what waits, then ends the thread. Repeatable.
  void stop();

  /// Returns when no call into the listener before runs any more, except when it is called from there.
  void set_listener(std::function<void(const Job_Notice&)> listener);
  void set_history_listener(std::function<void()> listener);

  void put_state(const Job_Notice& notice);
  void put_progress(const Job_Notice& notice);
  /// There is something new in the history.
  void put_history();

private:
  struct Waiting {
    Job_Notice notice;
    bool progress;
  };

  void put(Waiting waiting);
  void run();
  template <class Listener> void replace(Listener& place, Listener listener);

  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<Waiting> waiting_;
  bool history_ = false;
  bool stopping_ = false;
  std::recursive_mutex calling_; ///< held during calls; guards the listeners
  std::function<void(const Job_Notice&)> listener_;
  std::function<void()> history_listener_;
  std::thread thread_;
};
} // namespace kestrel

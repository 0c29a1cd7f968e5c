#pragma once

#include "jobs/job.h"

#include <ace/Event.h>
#include <ace/Log_Msg.h>
#include <ace/OS_NS_Thread.h>
#include <ace/Thread_Manager.h>

#include <atomic>
#include <functional>
#include <new>

/// Owns one thread and starts it with a hand-shake: spawn() returns only when the thread has begun.
///
/// Threads:   one owner; running() may be asked from elsewhere.
/// Ownership: a joinable thread is joined by the destructor. A detached thread is not tracked at all: it may
///            outlive the helper, and it touches nothing of it once it has begun.
/// Errors:    negative = no thread was started.
class Thread_Helper
{
public:
  Thread_Helper(int flag, int priority)
      : _tid(ACE_OS::NULL_thread), _running(new (std::nothrow) std::atomic<bool>(false)), _started(nullptr),
        _flag(flag), _priority(priority)
  {
  }
  virtual ~Thread_Helper()
  {
    join();
    delete _running;
  }
  Thread_Helper(const Thread_Helper&) = delete;
  Thread_Helper& operator=(const Thread_Helper&) = delete;

  /// Runs on the new thread before the work.
  virtual void handle_starting() {}

  /// Runs f of obj. Refused while an earlier thread still runs.
  template <class F, class Obj> int spawn(F f, Obj obj)
  {
    if (running()) {
      return -1;
    }
    join();
    _function = std::bind(f, obj);
    return spawn();
  }

  int spawn()
  {
    if (!_running) {
      ACE_ERROR((LM_EMERGENCY, "Unexpected error in %N:%l, _running is NULL:\n%?\n"));
      return -1;
    }
    ACE_Event started;
    const int result = detached() ? spawn_detached(started) : spawn_joinable(started);
    if (result >= 0) {
      started.wait();
    }
    _started = nullptr;
    return result;
  }

  /// A joinable thread was started and not yet joined.
  bool exists() const { return !ACE_OS::thr_equal(_tid, ACE_OS::NULL_thread); }
  bool running() const { return exists() && _running && *_running; }

  int join()
  {
    if (!exists()) {
      return 0;
    }
    const int result = ACE_Thread_Manager::instance()->join(_tid);
    _tid = ACE_OS::NULL_thread;
    return result;
  }

private:
  bool detached() const { return (_flag & THR_DETACHED) != 0; }

  int spawn_joinable(ACE_Event& started)
  {
    if (_running->exchange(true)) {
      ACE_ERROR((LM_EMERGENCY, "Unexpected error in %N:%l, already_running is true:\n%?\n"));
      return -1;
    }
    _started = &started;
    const int result =
        ACE_Thread_Manager::instance()->spawn(&Thread_Helper::run, this, _flag, &_tid, nullptr, _priority);
    if (result < 0) {
      _tid = ACE_OS::NULL_thread;
      *_running = false;
    }
    return result;
  }

  int spawn_detached(ACE_Event& started)
  {
    ACE_thread_t tid;
    _started = &started;
    return ACE_Thread_Manager::instance()->spawn(&Thread_Helper::run, this, _flag, &tid, nullptr, _priority);
  }

  static ACE_THR_FUNC_RETURN run(void* arg)
  {
    Thread_Helper* const helper = static_cast<Thread_Helper*>(arg);
    helper->handle_starting();
    const std::function<void()> function = helper->_function;
    std::atomic<bool>* const running = helper->detached() ? nullptr : helper->_running;
    // The owner waits for this signal; after it a detached thread's helper may be gone.
    if (helper->_started) {
      helper->_started->signal();
    }
    function();
    if (running) {
      *running = false;
    }
    return 0;
  }

  ACE_thread_t _tid;
  std::function<void()> _function;
  std::atomic<bool>* _running;
  ACE_Event* _started;
  int _flag;
  int _priority;
};

/// A thread that works for a job's run: its log lines go to the job's log.
class Job_Thread_Helper : public Thread_Helper
{
public:
  /// The job is not owned and must outlive the thread.
  explicit Job_Thread_Helper(Job& job, int flag = THR_NEW_LWP | THR_JOINABLE | THR_INHERIT_SCHED,
                             int priority = ACE_DEFAULT_THREAD_PRIORITY)
      : Thread_Helper(flag, priority), job_(job)
  {
  }
  /// The thread calls handle_starting() of this class, so it must be over before this class is.
  ~Job_Thread_Helper() override { join(); }

  void handle_starting() override { job_.set_job_thread(); }

private:
  Job& job_;
};

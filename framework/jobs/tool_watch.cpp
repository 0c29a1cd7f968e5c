#include "jobs/tool_watch.h"

#include "base/clock.h"
#include "jobs/job.h"
#include "process/text_process_handler.h"

#include <ace/Log_Msg.h>
#include <ace/Time_Value.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>

namespace kestrel
{
namespace
{
/// Real time between two looks, whatever clock measures the silence: the thread must neither spin nor end
/// late.
const std::chrono::milliseconds LOOK_INTERVAL(200);
/// From SIGTERM to SIGKILL.
const unsigned TERMINATE_SECONDS = 10;

bool cancelled(Job_State state)
{
  return state == JOB_STATE_CANCELING || state == JOB_STATE_CANCELED || state == JOB_STATE_ABORTING;
}
} // namespace

struct Tool_Watch::State {
  State(Job& job, Text_Process_Handler& handler, std::string tool, int64_t grace_msec,
        std::function<void()> free_job)
      : job(job), handler(handler), tool(std::move(tool)), grace_msec(grace_msec),
        free_job(std::move(free_job)), touched_msec(clock().monotonic_msec())
  {
  }

  void run(Tool_Watch& watch);
  bool tool_runs();
  void terminate(int64_t silence_msec);

  Job& job;
  Text_Process_Handler& handler;
  const std::string tool;
  const int64_t grace_msec;
  const std::function<void()> free_job;
  std::atomic<int64_t> touched_msec;
  std::atomic<int64_t> end_expected_msec{-1};
  std::atomic<bool> fired{false};
  std::mutex check_mutex;   // one look at a time
  int64_t cancel_msec = -1; // when the cancel was first seen
  std::mutex mutex;
  std::condition_variable changed;
  bool stopping = false;
  std::thread thread;
};

Tool_Watch::Tool_Watch(Job& job, Text_Process_Handler& handler, std::string tool, int64_t grace_msec,
                       std::function<void()> free_job)
    : state_(new State(job, handler, std::move(tool), grace_msec, std::move(free_job)))
{
  try {
    state_->thread = std::thread([this] { state_->run(*this); });
  } catch (const std::system_error& e) {
    ACE_ERROR((LM_ERROR, "(%P|%t) Tool_Watch: no thread, %C will not be ended if it falls silent: %C\n",
               state_->tool.c_str(), e.what()));
  }
}

Tool_Watch::~Tool_Watch()
{
  {
    const std::lock_guard<std::mutex> guard(state_->mutex);
    state_->stopping = true;
    state_->changed.notify_all();
  }
  if (state_->thread.joinable()) {
    state_->thread.join();
  }
}

void Tool_Watch::touch()
{
  state_->touched_msec.store(clock().monotonic_msec(), std::memory_order_relaxed);
}

void Tool_Watch::expect_end()
{
  int64_t never = -1;
  state_->end_expected_msec.compare_exchange_strong(never, clock().monotonic_msec());
}

bool Tool_Watch::fired() const
{
  return state_->fired;
}

void Tool_Watch::check()
{
  State& state = *state_;
  const std::lock_guard<std::mutex> guard(state.check_mutex);
  if (state.fired || !cancelled(state.job.state())) {
    return;
  }
  const int64_t now = clock().monotonic_msec();
  if (state.cancel_msec < 0) {
    state.cancel_msec = now;
  }
  const int64_t end_expected_msec = state.end_expected_msec;
  const int64_t last = end_expected_msec >= 0 ? end_expected_msec
                                              : std::max(state.touched_msec.load(std::memory_order_relaxed),
                                                         state.handler.last_activity_msec());
  const int64_t silence_msec = now - last;
  if (silence_msec < state.grace_msec || now - state.cancel_msec < state.grace_msec) {
    return;
  }
  if (state.tool_runs()) {
    state.terminate(silence_msec);
  } else if (state.free_job) {
    state.free_job();
  }
}

void Tool_Watch::State::run(Tool_Watch& watch)
{
  job.set_job_thread();
  std::unique_lock<std::mutex> guard(mutex);
  while (!changed.wait_for(guard, LOOK_INTERVAL, [this] { return stopping; })) {
    guard.unlock();
    watch.check();
    guard.lock();
  }
}

/// Not yet spawned, or ended, is not silent.
bool Tool_Watch::State::tool_runs()
{
  const ACE_Time_Value at_once(0);
  return handler.wait(&at_once) == -1 && errno == ETIME;
}

void Tool_Watch::State::terminate(int64_t silence_msec)
{
  const bool silent = grace_msec > 0;
  if (silent) {
    ACE_ERROR((LM_WARNING,
               "(%P|%t) Tool_Watch: job %C is %C, but %C has %C %q seconds: terminating its process group\n",
               job.definition().id().c_str(), job_state_text(job.state()), tool.c_str(),
               end_expected_msec >= 0 ? "been told to end and has not for" : "been silent for",
               silence_msec / 1000));
  } else {
    ACE_DEBUG((LM_INFO, "(%P|%t) Tool_Watch: job %C is %C: terminating %C and its process group\n",
               job.definition().id().c_str(), job_state_text(job.state()), tool.c_str()));
  }
  if (handler.terminate(TERMINATE_SECONDS) == 0) {
    // Ending a tool that works is what the user asked for; ending a hung one tells of a problem.
    const ACE_Log_Priority priority = silent ? LM_WARNING : LM_INFO;
    ACE_ERROR((priority, "(%P|%t) Tool_Watch: %C has been terminated\n", tool.c_str()));
    fired = true; // last: who sees it finds the whole story in the log
  } else {
    ACE_ERROR((LM_ERROR, "(%P|%t) Tool_Watch: %C could not be terminated: %m\n", tool.c_str()));
    cancel_msec = clock().monotonic_msec(); // another grace before the next attempt
  }
}
} // namespace kestrel

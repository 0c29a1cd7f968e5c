#include "process/process_run.h"

#include "base/clock.h"
#include "base/ignore_result.h"
#include "base/log.h"

#include <ace/Event_Handler.h>
#include <ace/Log_Msg.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace kestrel
{
namespace
{
const size_t general_line_cap = 16u * 1024 * 1024;
const size_t read_buffer_bytes = 64 * 1024;
const size_t most_left_in_pipe = 1024 * 1024;
/// The longest sleep while a deadline is pending: tests run the clock faster than real time.
const int deadline_slice_msec = 100;
/// How often to look for the child's end on kernels that do not announce it.
const int end_poll_msec = 20;
/// How long a child is given to vanish after SIGKILL. More is a process stuck in the kernel.
const int64_t after_kill_msec = 30 * 1000;
/// Output that a terminated tool's descendants still hold back is not worth the whole wait.
const int64_t eof_after_terminate_msec = 2 * 1000;

int64_t now_msec()
{
  return clock().monotonic_msec();
}

int64_t later(int64_t start_msec, int64_t length_msec)
{
  return length_msec >= INT64_MAX - start_msec ? INT64_MAX : start_msec + length_msec;
}

int open_end_notice(pid_t pid)
{
#ifdef SYS_pidfd_open
  return above_stdio(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)));
#else
  static_cast<void>(pid);
  return -1;
#endif
}
} // namespace

void Output_Stream::open(Auto_Fd& pipe, size_t max_line)
{
  pipe_.reset(pipe.release());
  splitter_.reset(new Line_Splitter(*this, max_line));
  delivering_ = true;
  if (is_open())
    ignore_result(::fcntl(pipe_.get(), F_SETFL, O_NONBLOCK), "poll says when there is something to read");
}

bool Output_Stream::read_some(std::vector<char>& buffer, std::atomic<int64_t>& came_msec)
{
  // One byte is kept for the NUL behind a line.
  const ssize_t count = read_write_trait::read(pipe_.get(), buffer.data(), buffer.size() - 1);
  if (count < 0 && errno == EAGAIN)
    return false;
  if (count <= 0) {
    close();
    return false;
  }
  // Before the lines are handed out: whoever has seen one finds the time at which it came.
  came_msec.store(now_msec());
  if (delivering_ && !splitter_->stopped())
    splitter_->feed(buffer.data(), static_cast<size_t>(count));
  return true;
}

void Output_Stream::close()
{
  if (!is_open())
    return;
  if (delivering_ && !splitter_->stopped())
    splitter_->finish();
  pipe_.reset();
  if (delivering_)
    guarded(
        [&] { return kind_ == STDOUT ? handler_.handle_stdout_close() : handler_.handle_stderr_close(); });
}

int Output_Stream::line(const char* text, unsigned int length)
{
  return guarded([&] {
    return kind_ == STDOUT ? handler_.handle_stdout_line(text, length)
                           : handler_.handle_stderr_line(text, length);
  });
}

int Output_Stream::segment(const char* data, unsigned int length)
{
  return kind_ == STDOUT ? guarded([&] { return handler_.handle_stdout_segment(data, length); }) : 0;
}

template <class Function> int Output_Stream::guarded(Function function)
{
  try {
    return function();
  } catch (const std::exception& e) {
    ACE_ERROR(
        (LM_ERROR, "Output handler of a tool failed, the rest of its output is dropped: %s\n", e.what()));
  } catch (...) {
    ACE_ERROR((LM_ERROR, "Output handler of a tool failed, the rest of its output is dropped\n"));
  }
  return -1;
}

Process_Run::Process_Run(Text_Process_Handler& handler, unsigned int max_line, int eof_seconds)
    : max_line_(max_line == 0 ? general_line_cap : std::min<size_t>(max_line, general_line_cap)),
      eof_msec_(static_cast<int64_t>(std::max(eof_seconds, 0)) * 1000),
      stdout_(handler, Output_Stream::STDOUT), stderr_(handler, Output_Stream::STDERR)
{
}

Process_Run::~Process_Run()
{
  Lock lock(mutex_);
  release_group();
  if (phase_ != Phase::RUNNING)
    return;
  keeps_group_ = false;
  // The derived handler is gone already.
  stdout_.drop_everything();
  stderr_.drop_everything();
  exit_handler_ = nullptr;
  terminating_ = true;
  signal_child(SIGKILL);
  if (!wait_for_end(lock, now_msec()))
    ACE_ERROR((LM_ERROR, "A tool (pid %d) cannot be killed and is left behind\n", static_cast<int>(pid_)));
}

int Process_Run::spawn(ACE_Process_Ex& process, ACE_Process_Options& options, ACE_Event_Handler* exit_handler)
{
  Lock lock(mutex_);
  if (phase_ == Phase::RUNNING) {
    errno = EBUSY;
    return -1;
  }
  release_group();
  phase_ = Phase::NONE;
  result_ = -1;
  result_errno_ = ECHILD;
  wake_.reset(above_stdio(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)));
  if (wake_.get() < 0)
    return -1;
  buffer_.resize(read_buffer_bytes);

  const pid_t pid = process.spawn(options);
  if (pid < 0)
    return -1;
  pid_ = pid;
  own_group_ = options.getgroup() == 0;
  end_notice_.reset(open_end_notice(pid));
  stdout_.open(process.stdout_pipe(), max_line_);
  stderr_.open(process.stderr_pipe(), max_line_);
  callback_ = process.callback();
  exit_handler_ = exit_handler;
  lost_ = terminating_ = ended_ = false;
  kill_deadline_msec_ = NEVER;
  last_activity_msec_.store(now_msec());
  phase_ = Phase::RUNNING;
  return 0;
}

int Process_Run::wait(const ACE_Time_Value* timeout)
{
  Lock lock(mutex_);
  if (phase_ == Phase::RUNNING && inside_callback()) {
    errno = EDEADLK;
    return -1;
  }
  int64_t deadline = NEVER;
  if (timeout)
    deadline = later(now_msec(), static_cast<int64_t>(timeout->sec()) * 1000 + timeout->usec() / 1000);
  if (phase_ == Phase::RUNNING && !wait_until(lock, deadline)) {
    errno = ETIME;
    return -1;
  }
  errno = result_errno_;
  return result_;
}

int Process_Run::terminate(unsigned int seconds)
{
  Lock lock(mutex_);
  if (phase_ != Phase::RUNNING)
    return 0;
  signal_child(SIGTERM);
  terminating_ = true;
  kill_deadline_msec_ =
      std::min(kill_deadline_msec_, later(now_msec(), static_cast<int64_t>(seconds) * 1000));
  wake_pump();
  if (inside_callback()) {
    errno = EDEADLK;
    return -1;
  }
  if (wait_for_end(lock, kill_deadline_msec_))
    return 0;
  errno = ETIME;
  return -1;
}

/// Waits until this run is over, as the pump when there is no other. False when the deadline passes first.
bool Process_Run::wait_until(Lock& lock, int64_t deadline_msec)
{
  while (phase_ == Phase::RUNNING) {
    if (!pumping_) {
      pumping_ = true;
      pump_thread_ = std::this_thread::get_id();
      lock.unlock();
      pump(deadline_msec);
      lock.lock();
      pumping_ = false;
      changed_.notify_all();
    } else if (deadline_msec == NEVER) {
      changed_.wait(lock);
    } else {
      changed_.wait_for(lock, std::chrono::milliseconds(deadline_slice_msec));
    }
    // Only now, so that a timeout of zero sees a child that has ended.
    if (phase_ == Phase::RUNNING && deadline_msec != NEVER && now_msec() >= deadline_msec)
      return false;
  }
  return true;
}

/// Waits for the end of a child that is to be killed at that time. The kernel takes real time for a kill, so
/// the limit holds in real time, too, whatever clock the product goes by.
bool Process_Run::wait_for_end(Lock& lock, int64_t kill_msec)
{
  const auto least = std::chrono::steady_clock::now() + std::chrono::milliseconds(after_kill_msec);
  int64_t deadline = later(kill_msec, after_kill_msec);
  while (!wait_until(lock, deadline)) {
    if (std::chrono::steady_clock::now() >= least)
      return false;
    deadline = later(now_msec(), deadline_slice_msec);
  }
  return true;
}

void Process_Run::pump(int64_t deadline_msec)
{
  const Thread_Log_Callback log_scope(callback_);
  while (pump_once(deadline_msec))
    continue;
}

/// One round of the pump. False when the run is over or the deadline has passed.
bool Process_Run::pump_once(int64_t deadline_msec)
{
  poll_pipes(poll_timeout(deadline_msec));
  if (!ended_ && look_for_end()) {
    ended_ = true;
    ended_msec_ = now_msec();
  }
  kill_if_due();
  if (run_is_over()) {
    finish();
    return false;
  }
  return deadline_msec == NEVER || now_msec() < deadline_msec;
}

int Process_Run::poll_timeout(int64_t deadline_msec)
{
  bool limited = deadline_msec != NEVER || ended_;
  {
    const Lock lock(mutex_);
    limited = limited || kill_deadline_msec_ != NEVER;
  }
  if (!ended_ && end_notice_.get() < 0)
    return end_poll_msec;
  if (!limited)
    return -1;
  const int64_t rest = deadline_msec == NEVER ? deadline_slice_msec : deadline_msec - now_msec();
  return static_cast<int>(std::max<int64_t>(0, std::min<int64_t>(rest, deadline_slice_msec)));
}

void Process_Run::poll_pipes(int timeout_msec)
{
  // Negative descriptors are skipped by poll.
  pollfd polled[4] = {{stdout_.fd(), POLLIN, 0},
                      {stderr_.fd(), POLLIN, 0},
                      {ended_ ? -1 : end_notice_.get(), POLLIN, 0},
                      {wake_.get(), POLLIN, 0}};
  if (::poll(polled, 4, timeout_msec) <= 0)
    return;
  if (polled[0].revents != 0)
    stdout_.read_some(buffer_, last_activity_msec_);
  if (polled[1].revents != 0)
    stderr_.read_some(buffer_, last_activity_msec_);
  uint64_t wakes;
  if (polled[3].revents != 0)
    ignore_result(::read(wake_.get(), &wakes, sizeof wakes), "whether anything was there does not matter");
}

/// True once the child has ended. It is not reaped yet.
bool Process_Run::look_for_end()
{
  siginfo_t info = {};
  int result;
  do
    result = ::waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOHANG | WNOWAIT);
  while (result != 0 && errno == EINTR);
  if (result == 0 && info.si_pid != pid_)
    return false;
  const Lock lock(mutex_);
  lost_ = result != 0;
  // The zombie still keeps the group's number. A child that shares this process's group has none to kill.
  const bool failed = info.si_code != CLD_EXITED || info.si_status != 0;
  if (failed && own_group_ && kills_group_on_failure_)
    signal_child(SIGKILL);
  return true;
}

void Process_Run::kill_if_due()
{
  const Lock lock(mutex_);
  if (kill_deadline_msec_ == NEVER || now_msec() < kill_deadline_msec_)
    return;
  kill_deadline_msec_ = NEVER;
  signal_child(SIGKILL);
}

bool Process_Run::run_is_over()
{
  if (!ended_)
    return false;
  if (!stdout_.is_open() && !stderr_.is_open())
    return true;
  const Lock lock(mutex_);
  const int64_t grace = terminating_ ? std::min(eof_msec_, eof_after_terminate_msec) : eof_msec_;
  return now_msec() - ended_msec_ >= grace;
}

void Process_Run::finish()
{
  // What the child left in the pipes came in time, also when a grandchild holds them open. Bounded, because
  // that grandchild may still be printing.
  for (Output_Stream* stream : {&stdout_, &stderr_})
    for (size_t done = 0;
         done < most_left_in_pipe && stream->is_open() && stream->read_some(buffer_, last_activity_msec_);)
      done += read_buffer_bytes;
  stdout_.close();
  stderr_.close();
  ACE_Event_Handler* const exit_handler = exit_handler_;
  {
    const Lock lock(mutex_);
    // Members of the group that outlived a termination go too, while the zombie still keeps the group's
    // number.
    if (terminating_)
      signal_child(SIGKILL);
    reap();
    callback_.reset();
    end_notice_.reset();
  }
  if (lost_)
    ACE_ERROR((LM_ERROR, "A tool was reaped by somebody else, its exit status is lost\n"));
  if (exit_handler)
    exit_handler->handle_exit(nullptr);
  const Lock lock(mutex_);
  phase_ = Phase::FINISHED;
  changed_.notify_all();
}

void Process_Run::kill_group()
{
  const Lock lock(mutex_);
  if (kept_group_ > 1)
    ignore_result(::kill(-kept_group_, SIGKILL), "nobody may be left in it");
}

/// From here on the number of the last child's group may be anybody's.
void Process_Run::release_group()
{
  siginfo_t info;
  while (kept_group_ > 1 && ::waitid(P_PID, static_cast<id_t>(kept_group_), &info, WEXITED) != 0 &&
         errno == EINTR)
    continue;
  kept_group_ = -1;
}

/// Takes the exit status; from here on the pid may be anybody's, unless the group is kept.
void Process_Run::reap()
{
  const bool keep = keeps_group_ && own_group_;
  siginfo_t info;
  info.si_code = 0;
  int result = -1;
  if (!lost_) {
    do
      result = ::waitid(P_PID, static_cast<id_t>(pid_), &info, keep ? WEXITED | WNOWAIT : WEXITED);
    while (result != 0 && errno == EINTR);
  }
  lost_ = result != 0;
  kept_group_ = keep && !lost_ ? pid_ : -1;
  pid_ = -1;
  result_ = result == 0 && info.si_code == CLD_EXITED ? info.si_status : -1;
  result_errno_ = lost_ ? ECHILD : result_ < 0 ? ECANCELED : 0;
}

void Process_Run::signal_child(int signal)
{
  // A pid that somebody else reaped may be a stranger's by now.
  if (pid_ > 1 && !lost_)
    ignore_result(::kill(own_group_ ? -pid_ : pid_, signal), "a child that has ended needs no signal");
}

void Process_Run::wake_pump()
{
  const uint64_t one = 1;
  ignore_result(::write(wake_.get(), &one, sizeof one), "a full counter wakes it too");
}
} // namespace kestrel

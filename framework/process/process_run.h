#pragma once

#include "base/descriptor.h"
#include "process/line_splitter.h"
#include "process/text_process_handler.h"

#include <ace/Time_Value.h>

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace kestrel
{
/// One output stream of a child: its pipe, and the handler's functions for it.
class Output_Stream : private Line_Sink
{
public:
  enum Kind { STDOUT, STDERR };

  Output_Stream(Text_Process_Handler& handler, Kind kind) : handler_(handler), kind_(kind) {}

  void open(Auto_Fd& pipe, size_t max_line);
  int fd() const { return pipe_.get(); }
  bool is_open() const { return pipe_.get() >= 0; }
  /// Reads what is there, at most one buffer. True when something came, and came_msec tells when; closes the
  /// stream at its end.
  bool read_some(std::vector<char>& buffer, std::atomic<int64_t>& came_msec);
  /// Delivers what is left and closes the pipe. Nothing happens when it is closed already.
  void close();
  /// From now on nothing is delivered.
  void drop_everything() { delivering_ = false; }

private:
  int line(const char* text, unsigned int length) override;
  int segment(const char* data, unsigned int length) override;
  template <class Function> int guarded(Function function);

  Text_Process_Handler& handler_;
  const Kind kind_;
  Auto_Fd pipe_;
  std::unique_ptr<Line_Splitter> splitter_;
  bool delivering_ = true;
};

/// The state behind Text_Process_Handler: one child at a time, from spawn until it is reaped.
///
/// Whoever waits first becomes the pump: it alone reads the pipes, calls the handler and sees the child end.
/// Other waiters sleep until the pump leaves or the run is over. The mutex guards everything that more than
/// one thread touches; it is never held while the handler's functions run.
///
/// The child stays a zombie until the run is over, so its pid (and its process group's number) cannot be
/// given to a stranger while anybody may still signal it; a signal is only sent with the mutex held and the
/// phase RUNNING.
class Process_Run
{
public:
  Process_Run(Text_Process_Handler& handler, unsigned int max_line, int eof_seconds);
  ~Process_Run();

  int spawn(ACE_Process_Ex& process, ACE_Process_Options& options, ACE_Event_Handler* exit_handler);
  int wait(const ACE_Time_Value* timeout);
  int terminate(unsigned int seconds);
  void kill_group_on_failure() { kills_group_on_failure_ = true; }
  void keep_group() { keeps_group_ = true; }
  void kill_group();
  int64_t last_activity_msec() const { return last_activity_msec_.load(); }

private:
  enum class Phase { NONE, RUNNING, FINISHED };
  typedef std::unique_lock<std::mutex> Lock;
  static const int64_t NEVER = INT64_MAX;

  bool inside_callback() const { return pumping_ && pump_thread_ == std::this_thread::get_id(); }
  bool wait_until(Lock& lock, int64_t deadline_msec);
  bool wait_for_end(Lock& lock, int64_t kill_msec);
  void pump(int64_t deadline_msec);
  bool pump_once(int64_t deadline_msec);
  void poll_pipes(int timeout_msec);
  int poll_timeout(int64_t deadline_msec);
  bool look_for_end();
  void kill_if_due();
  bool run_is_over();
  void finish();
  void reap();
  void release_group();
  void signal_child(int signal);
  void wake_pump();

  const size_t max_line_;
  const int64_t eof_msec_;
  std::atomic<bool> kills_group_on_failure_{false};
  std::atomic<bool> keeps_group_{false};

  std::mutex mutex_;
  std::condition_variable changed_;
  Phase phase_ = Phase::NONE;
  pid_t pid_ = -1;
  pid_t kept_group_ = -1; ///< of the last child, which is a zombie still
  bool own_group_ = false;
  bool lost_ = false; ///< somebody else reaped the child: its pid means nothing any more
  int64_t kill_deadline_msec_ = NEVER;
  bool terminating_ = false;
  int result_ = -1;
  int result_errno_ = ECHILD;
  bool pumping_ = false;
  std::thread::id pump_thread_;
  Auto_Fd wake_;

  // The pump's own.
  Output_Stream stdout_;
  Output_Stream stderr_;
  Auto_Fd end_notice_; ///< readable once the child has ended; closed where the kernel has no such thing
  bool ended_ = false;
  int64_t ended_msec_ = 0;
  std::vector<char> buffer_;
  std::shared_ptr<ACE_Log_Msg_Callback> callback_;
  ACE_Event_Handler* exit_handler_ = nullptr;

  std::atomic<int64_t> last_activity_msec_{0};
};
} // namespace kestrel

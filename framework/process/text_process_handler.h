#pragma once

#include "process/process_ex.h"

#include <ace/Log_Priority.h>

#include <cstdint>
#include <memory>

class ACE_Event_Handler;
class ACE_Time_Value;

namespace kestrel
{
class Process_Run;
}

/// Runs a command-line tool and hands its output to the virtual functions line by line.
/// Not for: interactive tools, binary output, daemons (subprocess::call starts those).
///
/// Threads: one run at a time; several one after the other. spawn and the first wait are usually one
///          thread's, and wait, terminate and last_activity_msec may be called from other threads at any
///          time: wait + wait        one of them reads the output, both return the result wait + terminate
///          terminate makes the run end, both return after the end      wait returns the stored result,
///          terminate returns 0 and signals nobody The virtual functions are called on whichever thread is
///          inside wait, call or terminate, never on two at once, and with the log lines of that thread
///          going to the process's callback. Between spawn and wait nobody reads: a tool that prints much
///          stands still until then. Inside a virtual function, terminate only asks for the end and wait is
///          refused (-1, errno EDEADLK).
/// Ownership: the handler takes over the pipes and the child at spawn and keeps no pointer to the
///            ACE_Process_Ex, which may go right after. The destructor kills (SIGKILL) and reaps a child
///            that still runs. Result of a run: exit status n gives n; death by a signal, a failed start or
///            a lost child gives -1 (errno says why for the last two, ECANCELED stands for a signal).
/// Errors: nothing is logged but a virtual function that throws (its stream is not delivered any more);
///         never the command line or the output.
class Text_Process_Handler
{
public:
  /// max_line: most bytes of one line, 0 for the general cap of 16 MiB alone; a longer line is cut there and
  /// its rest goes to handle_stdout_segment (stderr: nowhere). eof_seconds: how long to wait for the end of
  /// the output after the child has ended, because a grandchild may hold the pipes; never a limit on the run.
  Text_Process_Handler(unsigned int max_line, int eof_seconds);
  virtual ~Text_Process_Handler();
  Text_Process_Handler(const Text_Process_Handler&) = delete;
  Text_Process_Handler& operator=(const Text_Process_Handler&) = delete;

  /// One line without its end: `length` bytes, then a NUL; empty lines too, a last line without an end too. 0
  /// to go on; a negative value ends the delivery of this stream, and the rest is read and dropped. The base
  /// ignores the line.
  virtual int handle_stdout_line(const char* line, unsigned int length);
  virtual int handle_stderr_line(const char* line, unsigned int length);
  /// A further piece of a stdout line that is longer than the cap. Results as above.
  virtual int handle_stdout_segment(const char* data, unsigned int length);
  /// The stream has ended or was given up; once a run for each stream that is a pipe. Results mean nothing.
  virtual int handle_stdout_close();
  virtual int handle_stderr_close();

  /// spawn and wait without a limit. The second form makes an ACE_Process_Ex(flags, 0, no callback) of its
  /// own.
  int call(ACE_Process_Ex* process, ACE_Process_Options& opts);
  int call(unsigned int flags, ACE_Process_Options& opts);

  /// Starts the tool; 0, or -1 with errno when it cannot be executed (EBUSY: the last run has not ended). The
  /// options' handles are released in any case. `handler` is told of the end through handle_exit(nullptr), on
  /// the thread that saw it; it may be null and is not owned.
  int spawn(ACE_Process_Ex* process, ACE_Process_Options& opts, ACE_Event_Handler* handler);

  /// Reads the output until it ends and the child has ended; the result of the run. With a timeout
  /// (relative): -1 with errno ETIME when the run has not ended by then; wait may be called again. -1 with
  /// ECHILD before the first spawn.
  int wait(const ACE_Time_Value* timeout);

  /// Makes a running tool end: SIGTERM to its process group (when the options gave it one of its own) or to
  /// itself, up to `seconds` for it to go, then SIGKILL. Returns 0 when the child is gone, at once if it was
  /// already; -1 when it cannot be killed, or inside a virtual function, where it comes back at once.
  int terminate(unsigned int seconds);

  /// From now on, when the child itself ends by a signal or with a status other than 0, what is left of its
  /// own process group is killed at once: for tools whose children must not go on with half of the work. A
  /// child that succeeds leaves behind what it likes. Before the spawn.
  void kill_group_on_failure();

  /// From now on the number of the child's own process group stays taken after the child's end, until the
  /// next spawn or the end of the handler: the child remains as a zombie that long. Before the spawn.
  void keep_group();
  /// Kills (SIGKILL) what the last child left in its group. Nothing without keep_group and before a spawn.
  void kill_group();

  /// Monotonic time (kestrel::clock) at which output last came, or of the spawn when none came yet; 0 before
  /// a spawn.
  int64_t last_activity_msec() const;

protected:
  /// Writes one line to the log: to the process's callback if it has one, and wherever the thread logs.
  int log_line(ACE_Log_Priority prio, const char* line, unsigned int length);

private:
  friend class kestrel::Process_Run;

  std::unique_ptr<kestrel::Process_Run> run_;
};

#pragma once

#include <atomic>
#include <functional>
#include <memory>

#include "job/thread_helper.h"
#include "jobs/tool_watch.h"
#include "oscar/oscar_cmd_handler.h"
#include "oscar/stream_fifo.h"

class Job;

namespace oscar
{
/// One run of brcmd on a thread of its own, while the job's thread moves the bytes of its FIFO.
/// The thread runs the given command, which starts the tool and waits for its end, keeps whether that
/// succeeded, and then frees a job thread that still waits for the tool to open the FIFO. A tool that falls
/// silent after the job was canceled is ended by a watch, and so is a process that it left behind with the
/// FIFO.
///
/// Threads:   start, stop, join and the destructor on the job's thread; the other operations on any.
/// Ownership: job and FIFO are not owned and must outlive the run.
/// Errors:    the tool's own messages and a failed start are logged by the runner. Shutdown:  the
///            destructor stops the tool and joins the thread, in whatever state they are.
class Brcmd_Tool_Run
{
public:
  /// Starts the tool with the given line handler and returns when it has ended: 0 for success.
  typedef std::function<int(Execute_Cmd_Line_Handler&)> Command;

  /// opener_side: the end of the FIFO that the job opens. logging: the tool's lines go to the job's log.
  Brcmd_Tool_Run(Job& job, Stream_Fifo& fifo, Stream_Fifo::Side opener_side, bool logging, Command command);
  ~Brcmd_Tool_Run();
  Brcmd_Tool_Run(const Brcmd_Tool_Run&) = delete;
  Brcmd_Tool_Run& operator=(const Brcmd_Tool_Run&) = delete;

  /// False when no thread can be had (logged).
  [[nodiscard]] bool start();
  /// The tool has ended, or could not be started.
  bool ended() const { return ended_; }
  /// Not false before the tool has ended.
  bool succeeded() const { return success_; }
  /// Bytes have moved through the FIFO.
  void touch() { watch_.touch(); }
  /// Terminates the tool and returns when it has ended; at once when it has already. A tool that ignores that is killed
  /// after ten minutes, of a canceled job after the grace time of its watch.
  void stop();
  /// Waits for the end of the tool and of the thread, without a limit. True when the tool succeeded.
  [[nodiscard]] bool join();

private:
  void run();
  void free_job();

  Job& job_;
  Stream_Fifo& fifo_;
  const Stream_Fifo::Side opener_side_;
  const Command command_;
  Execute_Cmd_Line_Handler handler_;
  std::atomic<bool> success_{true};
  std::atomic<bool> ended_{false};
  std::atomic<bool> joined_{false};
  bool freed_ = false;        // the watch's own
  kestrel::Tool_Watch watch_; // behind all that it uses
  bool started_ = false;
  Job_Thread_Helper thread_; // last: joined before anything it uses is gone
};
} // namespace oscar

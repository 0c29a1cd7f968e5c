#pragma once

#include <ace/Log_Msg.h>
#include <ace/Log_Msg_Callback.h>

#include <memory>
#include <string>

namespace kestrel
{
/// Where a host's log lines go.
struct Log_Options {
  std::string file;                   ///< appended to; empty: no file
  bool to_stderr = false;             ///< also to the standard error output
  ACE_Log_Priority minimum = LM_INFO; ///< what is less urgent is dropped here, but still reaches job logs
};

/// Sets up the log of the whole process, all threads, in place of ACE's own output. Call it before the first
/// thread. Each line gets a time stamp (local time with milliseconds), process, thread and priority; a
/// missing line end is added. The file is made with mode 0640, opened again when it was renamed or removed
/// (log rotation), and written with one write a record, so that several processes may share it.
/// Errors: false, `error` says why, and the log stays as it was.
[[nodiscard]] bool open_process_log(const Log_Options& options, std::string& error);
/// Another minimum from now on, for all threads. Without effect before open_process_log().
void set_process_log_minimum(ACE_Log_Priority minimum);
/// Back to ACE's own output. Only when no other thread logs any more.
void close_process_log();

/// The log file of one job: every record that reaches it becomes one line, whatever its priority.
/// Threads:   any number at once.
/// Ownership: owns the descriptor.
class Log_File_Callback : public ACE_Log_Msg_Callback
{
public:
  Log_File_Callback();
  ~Log_File_Callback() override;

  /// Opens the file for appending (mode 0640). False: `error` says why. Only once.
  [[nodiscard]] bool open(const std::string& path, std::string& error);
  const std::string& path() const { return path_; }

  void log(ACE_Log_Record& record) override;

private:
  std::string path_;
  int file_ = -1;
};

/// Sends the log lines of the calling thread to `callback` too, until the scope ends; then the previous
/// callback is back. An empty pointer changes nothing. Keeps the callback alive. Must end on the thread that
/// made it.
class Thread_Log_Callback
{
public:
  explicit Thread_Log_Callback(std::shared_ptr<ACE_Log_Msg_Callback> callback);
  ~Thread_Log_Callback();
  Thread_Log_Callback(const Thread_Log_Callback&) = delete;
  Thread_Log_Callback& operator=(const Thread_Log_Callback&) = delete;

private:
  std::shared_ptr<ACE_Log_Msg_Callback> callback_;
  ACE_Log_Msg_Callback* previous_ = nullptr;
};

/// The lasting form, for the start of a thread that belongs to a job: from now on the calling thread's lines
/// go to `callback` too. Not owned: it must outlive the thread or a later call with null.
void set_thread_log_callback(ACE_Log_Msg_Callback* callback);

/// One record as a log line, with its line end: "2026-01-31 10:00:00.123 [pid.tid] ERROR text".
std::string format_log_line(const ACE_Log_Record& record);
} // namespace kestrel

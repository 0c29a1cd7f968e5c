#include "base/log.h"

#include "base/descriptor.h"
#include "base/ignore_result.h"

#include <ace/Log_Msg_Backend.h>
#include <ace/Log_Record.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <mutex>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

namespace kestrel
{
namespace
{
const char* priority_word(u_long priority)
{
  switch (priority) {
  case LM_TRACE:
    return "TRACE";
  case LM_DEBUG:
    return "DEBUG";
  case LM_INFO:
    return "INFO";
  case LM_NOTICE:
    return "NOTICE";
  case LM_WARNING:
    return "WARNING";
  case LM_ERROR:
    return "ERROR";
  case LM_CRITICAL:
    return "CRITICAL";
  case LM_ALERT:
    return "ALERT";
  case LM_EMERGENCY:
    return "EMERGENCY";
  default:
    return "LOG";
  }
}

int open_log_file(const std::string& path)
{
  return above_stdio(::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0640));
}

std::string open_error(const std::string& path)
{
  return "cannot open log file " + path + ": " + ::strerror(errno);
}

/// The sink of a host's whole process. ACE calls log() with a lock of its own held.
class Process_Log : public ACE_Log_Msg_Backend
{
public:
  bool configure(const Log_Options& options, std::string& error)
  {
    int file = -1;
    if (!options.file.empty() && (file = open_log_file(options.file)) < 0) {
      error = open_error(options.file);
      return false;
    }
    std::lock_guard<std::mutex> guard(mutex_);
    options_ = options;
    file_.reset(file);
    return true;
  }

  void set_minimum(ACE_Log_Priority minimum)
  {
    std::lock_guard<std::mutex> guard(mutex_);
    options_.minimum = minimum;
  }

  int open(const ACE_TCHAR*) override { return 0; }
  int reset() override { return 0; }
  int close() override { return 0; }

  ssize_t log(ACE_Log_Record& record) override
  {
    std::lock_guard<std::mutex> guard(mutex_);
    if (record.type() < static_cast<u_long>(options_.minimum))
      return 0;
    const std::string line = format_log_line(record);
    if (!options_.file.empty()) {
      reopen_after_rotation();
      ignore_result(read_write_trait::write_n(file_.get(), line.data(), line.size()),
                    "there is no place left to report a log that cannot be written");
    }
    if (options_.to_stderr)
      ignore_result(read_write_trait::write_n(STDERR_FILENO, line.data(), line.size()),
                    "there is no place left to report a log that cannot be written");
    return 0;
  }

private:
  void reopen_after_rotation()
  {
    struct stat named;
    struct stat opened;
    if (file_.get() >= 0 && ::stat(options_.file.c_str(), &named) == 0 &&
        ::fstat(file_.get(), &opened) == 0 && named.st_ino == opened.st_ino && named.st_dev == opened.st_dev)
      return;
    const int file = open_log_file(options_.file);
    if (file >= 0)
      file_.reset(file);
  }

  std::mutex mutex_;
  Log_Options options_;
  Auto_Fd file_;
};

Process_Log& process_log()
{
  // Never destroyed: threads may log while the process ends.
  static Process_Log* const instance = new Process_Log;
  return *instance;
}
} // namespace

std::string format_log_line(const ACE_Log_Record& record)
{
  const ACE_Time_Value stamp = record.time_stamp();
  const time_t seconds = stamp.sec();
  tm local;
  ::localtime_r(&seconds, &local);
  char head[128];
  const int length =
      ::snprintf(head, sizeof head, "%04d-%02d-%02d %02d:%02d:%02d.%03d [%ld.%ld] %s ", local.tm_year + 1900,
                 local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec,
                 static_cast<int>(stamp.usec() / 1000), static_cast<long>(::getpid()),
                 static_cast<long>(::syscall(SYS_gettid)), priority_word(record.type()));
  std::string line(head, length > 0 ? static_cast<size_t>(length) : 0);
  const char* const text = record.msg_data();
  line += text ? text : "";
  if (line.back() != '\n')
    line += '\n';
  return line;
}

bool open_process_log(const Log_Options& options, std::string& error)
{
  if (!process_log().configure(options, error))
    return false;
  ACE_Log_Msg::msg_backend(&process_log());
  ACE_LOG_MSG->set_flags(ACE_Log_Msg::CUSTOM | ACE_Log_Msg::MSG_CALLBACK);
  ACE_LOG_MSG->clr_flags(ACE_Log_Msg::STDERR);
  return true;
}

void set_process_log_minimum(ACE_Log_Priority minimum)
{
  process_log().set_minimum(minimum);
}

void close_process_log()
{
  ACE_LOG_MSG->clr_flags(ACE_Log_Msg::CUSTOM);
  ACE_LOG_MSG->set_flags(ACE_Log_Msg::STDERR);
  ACE_Log_Msg::msg_backend(nullptr);
}

Log_File_Callback::Log_File_Callback() {}

Log_File_Callback::~Log_File_Callback()
{
  if (file_ >= 0)
    Auto_Handle_Trait::close(file_);
}

bool Log_File_Callback::open(const std::string& path, std::string& error)
{
  const int file = open_log_file(path);
  if (file < 0) {
    error = open_error(path);
    return false;
  }
  file_ = file;
  path_ = path;
  return true;
}

void Log_File_Callback::log(ACE_Log_Record& record)
{
  if (file_ < 0)
    return;
  const std::string line = format_log_line(record);
  ignore_result(read_write_trait::write_n(file_, line.data(), line.size()),
                "the line still reaches the process log");
}

void set_thread_log_callback(ACE_Log_Msg_Callback* callback)
{
  ACE_Log_Msg* const log = ACE_LOG_MSG;
  log->msg_callback(callback);
  // The flag counts for all threads; those without a callback are not affected.
  if (callback && (log->flags() & ACE_Log_Msg::MSG_CALLBACK) == 0)
    log->set_flags(ACE_Log_Msg::MSG_CALLBACK);
}

Thread_Log_Callback::Thread_Log_Callback(std::shared_ptr<ACE_Log_Msg_Callback> callback)
    : callback_(std::move(callback))
{
  if (!callback_)
    return;
  previous_ = ACE_LOG_MSG->msg_callback();
  set_thread_log_callback(callback_.get());
}

Thread_Log_Callback::~Thread_Log_Callback()
{
  if (callback_)
    set_thread_log_callback(previous_);
}
} // namespace kestrel

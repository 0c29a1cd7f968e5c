#include "process/text_process_handler.h"

#include "process/process_run.h"

#include <ace/Log_Msg.h>

#include <algorithm>
#include <cerrno>

Text_Process_Handler::Text_Process_Handler(unsigned int max_line, int eof_seconds)
    : run_(new kestrel::Process_Run(*this, max_line, eof_seconds))
{
}

Text_Process_Handler::~Text_Process_Handler() {}

int Text_Process_Handler::handle_stdout_line(const char*, unsigned int)
{
  return 0;
}

int Text_Process_Handler::handle_stderr_line(const char*, unsigned int)
{
  return 0;
}

int Text_Process_Handler::handle_stdout_segment(const char*, unsigned int)
{
  return 0;
}

int Text_Process_Handler::handle_stdout_close()
{
  return 0;
}

int Text_Process_Handler::handle_stderr_close()
{
  return 0;
}

int Text_Process_Handler::call(ACE_Process_Ex* process, ACE_Process_Options& opts)
{
  return spawn(process, opts, nullptr) < 0 ? -1 : wait(nullptr);
}

int Text_Process_Handler::call(unsigned int flags, ACE_Process_Options& opts)
{
  ACE_Process_Ex process(flags, nullptr, std::shared_ptr<ACE_Log_Msg_Callback>());
  return call(&process, opts);
}

int Text_Process_Handler::spawn(ACE_Process_Ex* process, ACE_Process_Options& opts,
                                ACE_Event_Handler* handler)
{
  if (!process) {
    opts.release_handles();
    errno = EINVAL;
    return -1;
  }
  const int result = run_->spawn(*process, opts, handler);
  const int error = errno;
  // Options are used for many runs, and open handles would keep a pipe's other end from ever seeing its end.
  opts.release_handles();
  errno = error;
  return result;
}

int Text_Process_Handler::wait(const ACE_Time_Value* timeout)
{
  return run_->wait(timeout);
}

int Text_Process_Handler::terminate(unsigned int seconds)
{
  return run_->terminate(seconds);
}

void Text_Process_Handler::kill_group_on_failure()
{
  run_->kill_group_on_failure();
}

void Text_Process_Handler::keep_group()
{
  run_->keep_group();
}

void Text_Process_Handler::kill_group()
{
  run_->kill_group();
}

int64_t Text_Process_Handler::last_activity_msec() const
{
  return run_->last_activity_msec();
}

int Text_Process_Handler::log_line(ACE_Log_Priority prio, const char* line, unsigned int length)
{
  // ACE cuts a record at 4095 bytes and drops its line end with the rest.
  const unsigned int most = 4000;
  ACE_ERROR((prio, "%.*s%s\n", static_cast<int>(std::min(length, most)), line, length > most ? "..." : ""));
  return 0;
}

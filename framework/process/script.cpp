#include "process/script.h"

#include "base/log.h"
#include "process/process_ex.h"
#include "process/text_process_handler.h"

#include <ace/Log_Msg.h>
#include <ace/Log_Record.h>
#include <ace/OS_NS_sys_time.h>

#include <algorithm>
#include <cerrno>
#include <unistd.h>
#include <utility>

namespace
{
/// Hands each line to the callback alone: the output of users' scripts belongs to their job's log.
class Script_Output : public Text_Process_Handler
{
public:
  explicit Script_Output(ACE_Log_Msg_Callback* callback) : Text_Process_Handler(0, 60), callback_(callback) {}

  int handle_stdout_line(const char* line, unsigned int length) override
  {
    return write(LM_INFO, line, length);
  }
  int handle_stderr_line(const char* line, unsigned int length) override
  {
    return write(LM_ERROR, line, length);
  }

private:
  int write(ACE_Log_Priority priority, const char* line, unsigned int length)
  {
    if (!callback_)
      return 0;
    const unsigned int most = 4000;
    std::string text(line, std::min(length, most));
    text += '\n';
    ACE_Log_Record record(priority, ACE_OS::gettimeofday(), ::getpid());
    record.msg_data(text.c_str());
    callback_->log(record);
    return 0;
  }

  ACE_Log_Msg_Callback* const callback_;
};
} // namespace

bool execute_script(const std::string& script, bool /*unused*/, std::shared_ptr<ACE_Log_Msg_Callback> cb)
{
  return kestrel::execute_watched_script(script, std::move(cb), kestrel::Script_Watch());
}

bool kestrel::execute_watched_script(const std::string& script, std::shared_ptr<ACE_Log_Msg_Callback> cb,
                                     const Script_Watch& watch)
{
  if (script.empty())
    return true;
  ACE_Process_Options options;
  options.handle_inheritance(0);
  options.setgroup(0);
  ACE_Process_Ex process(PROCESS_STDOUT_PIPE | PROCESS_STDERR_PIPE, nullptr, cb);
  process.arguments({"/bin/sh", "-c", script});
  Script_Output output(cb.get());
  const std::shared_ptr<void> watching = watch ? watch(output) : nullptr;
  if (output.spawn(&process, options, nullptr) == 0)
    return output.wait(nullptr) == 0;
  const int error = errno;
  const kestrel::Thread_Log_Callback log_scope(cb);
  errno = error;
  ACE_ERROR((LM_ERROR, "Failed to start a script, errno=%d, %m\n", error));
  return false;
}

#include "process/subprocess.h"

#include "base/log.h"
#include "process/process_ex.h"
#include "process/text_process_handler.h"

#include <ace/Log_Msg.h>

#include <cerrno>

int subprocess::call(ACE_Process_Options& opts, std::shared_ptr<ACE_Log_Msg_Callback> cb)
{
  const kestrel::Thread_Log_Callback log_scope(cb);
  ACE_Process_Ex process(0, nullptr, cb);
  process.die_with_parent(false);
  Text_Process_Handler handler(0, 0);
  if (handler.spawn(&process, opts, nullptr) == 0)
    return handler.wait(nullptr);
  const int error = errno;
  ACE_ERROR((LM_ERROR, "Failed to start %s, errno=%d, %m\n", process.name().c_str(), error));
  errno = error;
  return -1;
}

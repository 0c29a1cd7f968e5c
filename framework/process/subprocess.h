#pragma once

#include <ace/Log_Msg_Callback.h>
#include <ace/Process.h>

#include <memory>

namespace subprocess
{
/// Runs a command to its end. The way to start daemons: the child's standard streams are /dev/null, it is not
/// killed with this process, and nobody waits for what it leaves behind. Exit status n gives n; death by a
/// signal or a failed start gives -1 with errno (a failed start also one LM_ERROR line with the program's
/// name, to `cb` too). The options' handles are released. Any thread; no limit on the time.
int call(ACE_Process_Options& opts, std::shared_ptr<ACE_Log_Msg_Callback> cb);
} // namespace subprocess

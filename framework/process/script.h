#pragma once

#include <ace/Log_Msg_Callback.h>

#include <memory>
#include <string>

/// Runs a script text with `/bin/sh -c` and waits for its end. An empty script is success. Its output goes to
/// `cb` and the log line by line: stdout at LM_INFO, stderr at LM_ERROR; with an empty `cb` nowhere. The
/// boolean means nothing. The script's processes that outlive the shell are not waited for longer than 60
/// seconds. True when the exit status is 0. A script that cannot be started is one LM_ERROR line. No limit on
/// the time.
bool execute_script(const std::string& script, bool unused, std::shared_ptr<ACE_Log_Msg_Callback> cb);

#pragma once

#include <ace/Log_Msg_Callback.h>

#include <memory>
#include <string>

/// Runs a script text with `/bin/sh -c` and waits for its end, however long that takes. An empty script is
/// success. The boolean means nothing.
/// Output:  line by line to `cb` alone, stdout at LM_INFO and stderr at LM_ERROR; with an empty `cb` nowhere.
///          Processes of the script that outlive the shell and keep its output open are waited for up to 60
///          seconds.
/// Threads: any; the caller's stands still.
/// Errors:  true when the exit status is 0; a script that cannot be started is one LM_ERROR line and false.
bool execute_script(const std::string& script, bool unused, std::shared_ptr<ACE_Log_Msg_Callback> cb);

#pragma once

#include <ace/Log_Msg_Callback.h>

#include <functional>
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

class Text_Process_Handler;

namespace kestrel
{
/// Gets the handler of the shell before this is started; what it returns lives until the script has ended.
/// Both may be empty.
typedef std::function<std::shared_ptr<void>(Text_Process_Handler&)> Script_Watch;

/// As execute_script, for a caller that may want the script to end before it does so by itself: the shell has
/// a process group of its own and can be ended through its handler on any thread. That makes the result
/// false.
bool execute_watched_script(const std::string& script, std::shared_ptr<ACE_Log_Msg_Callback> cb,
                            const Script_Watch& watch);
} // namespace kestrel

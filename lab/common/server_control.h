/// Finding, starting and stopping the server process of an instance.
/// Threads: single-threaded tools. Errors: Failure, or the stated result.
/// Crash:   a server that was killed leaves its pid file; running_server() sees through that.
#pragma once

#include "lab/common/instance_files.h"

#include <functional>
#include <sys/types.h>

namespace oscar_lab
{

/// The pid from the pid file when that process is this instance's live server, 0 otherwise.
pid_t running_server(const Instance_Files& files);

/// Whether the instance's live server lets users in; false without one.
bool accepts_logins(const Instance_Files& files);

/// Polls until done() is true; false after timeout_msec.
bool wait_until(const std::function<bool()>& done, int timeout_msec);

/// Runs bin/oscar --start and passes its message on in the Failure. True when this call started the server,
/// false when one was there or came up from elsewhere; logins work either way.
bool start_server(const Instance_Files& files);

/// Fast shutdown; waits until the process is gone. True when a server was running.
bool stop_server(const Instance_Files& files);

} // namespace oscar_lab

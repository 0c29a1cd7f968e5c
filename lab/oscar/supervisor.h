/// The server process of an instance, as the rest of the world sees it: "HOME/bin/oscar -d NAME".
/// It runs a PostgreSQL server under the account that owns the data directory, keeps admin/NAME.db while that
/// server lives and turns SIGTERM into a fast shutdown.
/// Threads: none. Errors: Failure before the server runs; afterwards the exit status.
/// Crash:   when this process is killed the kernel stops the PostgreSQL server too; the pid file stays.
#pragma once

#include "lab/common/instance_files.h"
#include "lab/common/text.h"

namespace oscar_lab
{

/// Another start was quicker.
class Already_Running : public Failure
{
public:
  using Failure::Failure;
};

/// What a supervisor tells its starter then.
constexpr const char* already_running_message = "already running\n";

/// Blocks until the server has ended. ready_fd (or -1) gets "ready\n" once logins work. Throws Already_Running
/// when somebody else's server is there first.
int supervise(const Instance_Files& files, int ready_fd);

/// Starts a supervisor as a daemon with a parent that reaps it, and waits until logins work; of several callers
/// at once one starts the server and the others wait with it.
int launch(const Instance_Files& files);

} // namespace oscar_lab

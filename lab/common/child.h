/// Child processes of the stand-in, and the account under which a server's programs run.
/// Threads:   call from single-threaded tools only (fork).
/// Ownership: run_child waits for the child; nothing is left behind.
/// Errors:    Failure when a program cannot be started.
#pragma once

#include "lab/common/files.h"

#include <string>
#include <sys/types.h>
#include <vector>

namespace oscar_lab
{

struct Child_Result {
  int status = 0;     // exit status, or 128 + signal
  std::string output; // stdout and stderr together
};

/// Runs argv[0] (a full path) to its end as the given owner, with stdin from /dev/null and a clean
/// environment.
Child_Result run_child(const std::vector<std::string>& argv, const Owner& owner);

/// In a forked child that is about to exec: gives up root for good, resets signals. Does not return on
/// failure.
void become(const Owner& owner);
/// Default dispositions and an empty mask for all signals, whatever the caller had.
void reset_signals();
/// Points stdin, stdout and stderr at the descriptors and closes everything above them but keep.
void set_standard_descriptors(int in, int out, int error, const std::vector<int>& keep);

/// The account for new data directories: named when running as root, the caller's own otherwise.
Owner service_owner(const std::string& account_name);
/// The first directory on the way to path that the owner may not enter; empty when there is none.
std::string first_closed_directory(const std::string& path, const Owner& owner);

} // namespace oscar_lab

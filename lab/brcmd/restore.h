/// brcmd -O restore: reads a backup from a pipe and restores an instance from it.
/// The stream brings the info block once for itself, then the whole backup from its first byte.
/// A chain is restored by one run for each set, the full backup first. Everything goes into side directories;
/// the old data stay untouched until the server is started, which puts the last set that was restored
/// completely in their place. When a run fails or is cut off, the whole chain restored so far is dropped and
/// the old data stay. Errors: Failure. Crash: see swap_journal.h.
#pragma once

#include "lab/brcmd/run_log.h"
#include "lab/common/instance_files.h"

#include <string>

namespace oscar_lab
{

void run_restore(const Instance_Files& files, const std::string& pipe, Run_Log& log);

} // namespace oscar_lab

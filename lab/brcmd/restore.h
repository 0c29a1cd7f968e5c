/// brcmd -O restore: reads a backup from a pipe and puts it in the place of the instance's data.
/// The stream brings the info block once for itself, then the whole backup from its first byte.
/// Everything goes into side directories first; the old data stay untouched until the last byte was read,
/// verified and on disk. Errors: Failure; the old data are in place then. Crash: see swap_journal.h.
#pragma once

#include "lab/brcmd/run_log.h"
#include "lab/common/instance_files.h"

#include <string>

namespace oscar_lab
{

void run_restore(const Instance_Files& files, const std::string& pipe, Run_Log& log);

} // namespace oscar_lab

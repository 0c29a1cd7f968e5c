/// brcmd -O backup: writes a backup of an instance into a pipe: everything (full), or what changed since the
/// last backup of any level (incr) or since the last full one (diff).
///
/// Archive log on:  the server runs and stays writable. A full backup reads its data files while it works,
/// and the
///                  log written meanwhile goes along. The other levels are the log itself, to the byte.
/// Archive log off: the server must be shut down. A full backup has its files as they are, the other levels
/// the
///                  pages that were written since.
///
/// Everything that can be checked is checked before the pipe is opened. lastlsn.dat changes only after the
/// reader has taken the last byte. Errors: Failure. Crash: the server drops the backup when the connection
/// ends; nothing else is left.
#pragma once

#include "lab/brcmd/run_log.h"
#include "lab/common/instance_files.h"

#include <cstdint>
#include <string>

namespace oscar_lab
{

struct Backup_Request {
  std::string user;
  std::string password;
  std::uint16_t port = 0;
  std::string level; // "full", "incr" or "diff"
  std::string pipe;
};

void run_backup(const Instance_Files& files, const Backup_Request& request, Run_Log& log);

} // namespace oscar_lab

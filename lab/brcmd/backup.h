/// brcmd -O backup: writes a backup of an instance into a pipe.
///
/// Archive log on:  the server runs and stays writable; its data files are read while it works, and the log
///                  written meanwhile goes along.
/// Archive log off: the server must be shut down; its files are read as they are.
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
  std::string level; // "full"
  std::string pipe;
};

void run_backup(const Instance_Files& files, const Backup_Request& request, Run_Log& log);

} // namespace oscar_lab

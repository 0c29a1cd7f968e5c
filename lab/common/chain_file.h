/// agent/lastlsn.dat: which backup of an instance was the last one and the last full one.
/// One file serves all instances of a home; lines of the others are kept as they are.
/// Threads/processes: writers exclude each other by a lock file beside it; readers see the old or the new
/// file. Errors: Failure. Crash: the file is replaced as a whole.
#pragma once

#include "lab/common/instance_files.h"

#include <cstdint>
#include <string>

namespace oscar_lab
{

struct Backup_Point {
  std::string id;
  std::uint64_t lsn = 0;
  std::uint64_t scn = 0;
};

struct Chain {
  Backup_Point last_full;
  Backup_Point last;
  /// All six values are there.
  bool complete() const;
};

Chain read_chain(const Instance_Files& files);
void write_chain(const Instance_Files& files, const Chain& chain);
/// Removes the instance's lines: after a restore the positions belong to a future that did not happen.
void forget_chain(const Instance_Files& files);

} // namespace oscar_lab

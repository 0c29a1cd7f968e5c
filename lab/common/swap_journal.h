/// The last step of a restore: restored directories take the places of the old ones.
/// Whoever finds a journal (the restore itself, the next restore, the next server start) carries the swap
/// through to its end, so a crash between two renames is never visible to a server.
/// Threads/processes: call with the instance's lock held. Errors: Failure; the journal stays, so a later call
/// goes on.
#pragma once

#include "lab/common/instance_files.h"

#include <string>
#include <vector>

namespace oscar_lab
{

struct Swap_Plan {
  struct Pair {
    std::string side;   // complete and synced; empty when the target only goes away
    std::string target; // may be missing
  };
  std::vector<Pair> pairs;
};

/// The side directory of a target, on the same file system.
std::string side_of(const std::string& target);
/// Notes a side directory before it is created, so that a later run can remove it if this one dies.
void note_side(const Instance_Files& files, const std::string& side);

/// Writes the journal and carries the plan through.
void commit_swap(const Instance_Files& files, const Swap_Plan& plan);

/// Finishes a swap that was cut off and removes side directories of runs that died. True when a swap was
/// finished.
bool recover_swap(const Instance_Files& files);

} // namespace oscar_lab

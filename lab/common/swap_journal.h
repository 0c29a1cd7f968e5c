/// The last step of a restore: restored directories take the places of the old ones.
/// It is taken by whoever needs the data next (the start of the server, an offline backup, the restore of
/// another full backup). A journal makes it whole: whoever finds one carries the swap through to its end, so
/// a crash between two renames is never visible to a server. Threads/processes: call with the instance's lock
/// held. Errors: Failure; the journal stays, so a later call goes on.
#pragma once

#include "lab/common/instance_files.h"

#include <string>

namespace oscar_lab
{

/// The side directory of a target, on the same file system.
std::string side_of(const std::string& target);
/// Notes a side directory before it is created, so that a later run can remove it if this one dies.
void note_side(const Instance_Files& files, const std::string& side);

enum class Settled {
  nothing,  // there was no restore
  in_place, // the restored data have taken the place of the old ones
  dropped   // a restore was cut off; its side directories are gone, the old data are as they were
};

/// Brings whatever restores have left behind to an end.
Settled settle_restore(const Instance_Files& files);
/// The same, but a restore that is complete so far is left waiting, for the next set or a start.
Settled settle_cut_off(const Instance_Files& files);
/// Gives up a restore that waits in its side directories. Never touches a swap that has begun.
void drop_restore(const Instance_Files& files);

} // namespace oscar_lab

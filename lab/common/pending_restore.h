/// odbs/NAME/restore.state: what a restore has gathered in its side directories so far.
/// A chain is restored by one run of brcmd for each set; nobody tells the tool which set is the last one. So
/// a run only fills the side directories and notes here what they hold; the next start of the server puts
/// them in the place of the old data (see swap_journal.h). A note that is not complete means that a run was
/// cut off: what it touched is worthless. Threads/processes: call with the instance's lock held. Errors:
/// Failure; read_pending() of a damaged file too. Crash: the note is replaced as a whole.
#pragma once

#include "lab/common/instance_files.h"

#include <cstdint>
#include <string>
#include <vector>

namespace oscar_lab
{

struct Restored_Root {
  std::string oid;    // empty: the data directory
  std::string target; // where the directory belongs
};

struct Pending_Restore {
  bool complete = false;
  std::string full_id; // the full backup that the chain began with
  std::string id;      // the set that was restored last
  std::string mode;    // "online" or "offline"
  std::string system;  // identifier of the database
  unsigned timeline = 0;
  std::uint64_t segment_bytes = 0;
  std::uint64_t lsn = 0;            // end of the set that was restored last
  std::vector<Restored_Root> roots; // the data directory first
};

/// False when there is no note.
bool read_pending(const Instance_Files& files, Pending_Restore& pending);
void write_pending(const Instance_Files& files, const Pending_Restore& pending);
void remove_pending(const Instance_Files& files);

/// The note's text and back; parse_pending() throws when something is missing or odd.
std::string format_pending(const Pending_Restore& pending);
Pending_Restore parse_pending(const std::string& text);

} // namespace oscar_lab

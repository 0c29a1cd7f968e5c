/// odbs/NAME/chain/ID: what brcmd must know of a backup to continue it, beyond lastlsn.dat.
/// A note is written before lastlsn.dat names its backup, and notes that it does not name any more are
/// removed afterwards. Threads/processes: one backup of an instance at a time. Errors: Failure. Crash: a
/// stray note may stay until the next backup.
#pragma once

#include "lab/common/instance_files.h"

#include <cstdint>
#include <map>
#include <set>
#include <string>

namespace oscar_lab
{

/// What changes whenever somebody writes to a file or puts another one in its place.
struct File_Note {
  std::uint64_t bytes = 0;
  std::uint64_t inode = 0;
  std::uint64_t modified_nsec = 0; // since the epoch
  std::uint64_t changed_nsec = 0;
};
bool operator==(const File_Note& a, const File_Note& b);

struct Set_Notes {
  std::string full_id;
  std::string mode;   // "online" or "offline"
  std::string system; // identifier of the database
  unsigned timeline = 0;
  std::uint64_t lsn = 0;
  /// The files as they were backed up, or a part of them that matters. Keys are made by note_key().
  std::map<std::string, File_Note> files;
};

/// A file by the oid of its tablespace (empty: the data directory) and its path there.
std::string note_key(const std::string& oid, const std::string& path);

std::string format_notes(const Set_Notes& notes);
/// Throws when anything is missing or odd.
Set_Notes parse_notes(const std::string& text);

void write_notes(const Instance_Files& files, const std::string& id, const Set_Notes& notes);
/// Throws, with the advice to take a full backup, when there is no good note of this backup.
Set_Notes read_notes(const Instance_Files& files, const std::string& id);
void remove_notes_except(const Instance_Files& files, const std::set<std::string>& ids);

} // namespace oscar_lab

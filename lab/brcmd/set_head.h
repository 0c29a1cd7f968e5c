/// What the head and the end of a backup stream say, and whether a set continues what was restored before.
/// Threads: none. Errors: Failure.
#pragma once

#include "lab/brcmd/log_segments.h"
#include "lab/common/pending_restore.h"

#include <string>

namespace oscar_lab
{

struct Set_Head {
  std::string level; // full, incr or diff
  std::string mode;  // online or offline
  std::string id;
  std::string system;
  std::string directory; // of the instance when it was backed up
  Log_Shape log_shape;
  std::string full_id; // of a full backup: its own id
  // Of incr and diff:
  std::string base_id; // the set that it continues
  std::uint64_t first_lsn = 0;

  bool is_full() const { return level == "full"; }
};

struct Set_End {
  std::uint64_t lsn = 0;
  Log_Range log_part; // the log in this set
};

/// Throw when a value is missing or odd, or when the backup was made by another version.
Set_Head parse_set_head(const std::string& text);
Set_End parse_set_end(const std::string& text);

/// Throws unless the level is one that continues a chain and there is something to continue.
void require_continuation(const std::string& level, bool restored_before);
/// Throws unless this set can follow the one that was restored last.
void check_continuation(const Set_Head& head, const Pending_Restore& before);

} // namespace oscar_lab

#pragma once

#include "agent/backup_catalog.h"

#include <functional>
#include <string>

namespace kestrel
{
/// What the verification of one backup found.
struct Verification {
  enum class Outcome {
    good,    ///< every stored byte was read and everything agrees
    damaged, ///< the stored file is missing, or differs from what was backed up
    unknown, ///< it could not be judged: pool not reachable, canceled
  };
  Outcome outcome = Outcome::unknown;
  std::string problem; ///< one sentence unless good
  uint64_t bytes = 0;  ///< of the original stream that were read
};

/// Reads every stored byte of a backup through the same client as a restore and checks: both checksums, the sizes and
/// checksums that the catalog keeps, and the structure of the stream (info head and info data).
/// Needs no database server and changes nothing.
/// Threads: any; blocks for as long as the reading takes.
/// `progress` and `cancel_requested` may be empty; they are called on the calling thread.
Verification verify_backup(const Backup_Entry& backup,
                           const std::function<void(uint64_t done_bytes, uint64_t total_bytes)>& progress,
                           const std::function<bool()>& cancel_requested);
} // namespace kestrel

#pragma once

#include "agent/backup_catalog.h"
#include "storage/pool.h"

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

/// Reads every stored byte of a backup through the same client as a restore and checks: both checksums, the
/// sizes and checksums that the catalog keeps, and the structure of the stream (info head and info data).
/// Needs no database server and changes nothing. A backup whose deletion has begun is not read: unknown.
/// Threads: any; blocks for as long as the reading takes. `progress` and `cancel_requested` may be empty;
///          they are called on the calling thread.
Verification verify_backup(const Backup_Entry& backup,
                           const std::function<void(uint64_t done_bytes, uint64_t total_bytes)>& progress,
                           const std::function<bool()>& cancel_requested);

/// The pool that a backup lies in. False with one sentence in `problem` when nothing can be said of its
/// backups here: the pool is not known, or its directory or its mark is not there.
[[nodiscard]] bool find_pool_of_backup(const std::string& pool_uuid, Pool_Info& pool, std::string& problem);

/// Whether the failure to read a stored file says nothing about the file itself: this user may not read it,
/// the pool went away meanwhile, or a server's pool could not be asked.
bool tells_nothing(const Pool_Info& pool, const std::string& path, const std::string& error);

/// Looks at the stored file without reading it: whether it is there, as long as the catalog says, and, by its
/// side file, the one that was stored. What this finds would make a restore fail half-way; good does not mean
/// undamaged. `pool_uuid` is the pool to look in. Threads: any; costs no more than opening two files.
Verification probe_backup(const Backup_Entry& backup, const std::string& pool_uuid);
} // namespace kestrel

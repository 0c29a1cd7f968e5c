#pragma once

#include "json/value.h"

#include <cstdint>
#include <ctime>
#include <map>
#include <string>
#include <vector>

namespace kestrel
{
/// One physical backup as the catalog knows it. A plain value; sizes in bytes, times in seconds since the
/// epoch.
struct Backup_Entry {
  std::string id;
  std::string level; ///< "full", "incr" or "diff"
  std::string name;  ///< of the job definition that made it
  std::string resource_uuid;
  std::string uri;
  std::string pool_uuid;
  std::string file;
  std::string compression;
  uint64_t size = 0;
  uint64_t stored_size = 0;
  uint64_t pump_size = 0;
  std::string pump_checksum;
  std::string original_checksum;
  std::string storage_checksum;
  time_t start_time = 0;
  time_t end_time = 0;
  bool available = false;
  std::string state_reason;
  bool deleting = false; ///< its deletion has begun and is to be finished; never available
  std::string damage; ///< of its record, of which only part could be read; "" when all is well
  bool predecessor_missing = false;
  std::string predecessor_id;
  std::string full_backup_id;
  uint64_t lsn = 0;
  uint64_t scn = 0;
  std::vector<std::string> children; ///< ids of the backups that need this one directly, oldest first
  uint64_t chain_length = 0;         ///< backups that a restore of this one reads; 0 = it cannot be restored
  std::string chain_problem;         ///< one sentence why it cannot
};

/// What hosts read from the catalog of physical backups. A catalog that another process keeps busy is tried
/// again for ten seconds.
/// Threads: any.
/// Errors:  false with one sentence in `error` that names the catalog and what to do; results untouched.

/// Backups that match every given field, newest first; `limit` 0 = all.
[[nodiscard]] bool list_backups(const std::map<std::string, json_spirit::Value>& fields, uint64_t limit,
                                std::vector<Backup_Entry>& backups, std::string& error);

/// The backup committed last of a resource, whatever the clock said; none when there is no backup.
[[nodiscard]] bool last_committed_backup(const std::string& resource_uuid, std::vector<Backup_Entry>& backup,
                                         std::string& error);

/// The backups that must be restored, in order, to restore `backup`; none when its chain is broken, and then
/// `problem` says where. Of these entries children, chain_length and chain_problem are not filled.
[[nodiscard]] bool backup_sequence(const Backup_Entry& backup, std::vector<Backup_Entry>& backups,
                                   std::string& problem, std::string& error);

/// `backup` and what it builds on, full backup first, as far as the catalog knows it: also through backups
/// that cannot be used at present.
[[nodiscard]] bool known_chain(const Backup_Entry& backup, std::vector<Backup_Entry>& backups,
                               std::string& error);

/// The one backup that `reference` means: an id, a unique beginning of one, or "latest" (of the instance with
/// this resource uuid; empty: of the only instance that has backups).
[[nodiscard]] bool resolve_backup(const std::string& reference, const std::string& resource_uuid,
                                  Backup_Entry& backup, std::string& error);
} // namespace kestrel

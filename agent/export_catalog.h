#pragma once

#include "json/value.h"

#include <cstdint>
#include <ctime>
#include <map>
#include <string>
#include <vector>

namespace kestrel
{
/// One object of a logical backup.
struct Export_File {
  std::string database, schema, table; ///< schema and table are empty for what is larger
  std::string grade;                   ///< "table", "schema" or "database"
  std::string path;                    ///< where the export tool wrote it; names the file in the archive
  std::string checksum;
  uint64_t size = 0;
};

/// What the catalog knows of one logical backup.
struct Export_Entry {
  std::string id;
  std::string name; ///< of the job definition that made it
  std::string definition_uuid;
  std::string host_uuid;
  std::string resource_uuid;
  std::string minor_resource_id;
  std::string pool_uuid;
  std::string file; ///< the archive
  std::string instance;
  std::string compression;
  std::string original_checksum;
  std::string storage_checksum;
  uint64_t seq = 0;
  uint64_t size = 0; ///< of the archive
  uint64_t stored_size = 0;
  uint64_t files_size = 0;
  time_t start_time = 0;
  time_t end_time = 0;
  bool available = false;
  std::string state_reason;
  bool deleting = false; ///< its deletion has begun and is to be finished; never available
  std::string damage; ///< of its record, of which only part could be read; "" when all is well
  std::vector<std::string> tablespaces;
  std::vector<Export_File> files;
};

/// What hosts read from the catalog of logical backups.
/// Threads: any.
/// Errors:  as for physical backups (agent/backup_catalog.h).

/// Backups that match every given field, newest first; `limit` 0 = all.
[[nodiscard]] bool list_exports(const std::map<std::string, json_spirit::Value>& fields, uint64_t limit,
                                std::vector<Export_Entry>& backups, std::string& error);

/// The backup committed last of a resource, whatever the clock said; none when there is no backup.
[[nodiscard]] bool last_committed_export(const std::string& resource_uuid, std::vector<Export_Entry>& backup,
                                         std::string& error);

/// The backups that `reference` may mean: the one with this id, else those whose id begins so; the newest for
/// "latest".
[[nodiscard]] bool find_exports(const std::string& reference, std::vector<Export_Entry>& backups,
                                std::string& error);
} // namespace kestrel

#pragma once

#include "agent/embedded_host.h"
#include "cli/object_path.h"

#include <cstdint>
#include <string>
#include <vector>

namespace kestrel
{
/// Job definition documents as the command line makes them: the same form as 'kestrel run' reads. Plain
/// functions. The ids of definitions are derived from the instance, so that every backup of one instance
/// belongs to one definition.

struct Backup_Request {
  std::string instance_name;
  std::string instance_uuid;
  std::string pool_id;
  std::string level; ///< "full", "incr" or "diff"
  std::string compression;
  int compression_level = 1;
  uint64_t rate_limit_bytes_per_second = 0;
};
std::string backup_definition(const Host_Identity& identity, const Backup_Request& request);

struct Restore_Request {
  std::string instance_name;
  std::string resource_uuid; ///< that the backup was made of
  std::string backup_id;
  std::string pool_id;       ///< that holds the backup
  std::string pool_override; ///< read the stored files from this pool; empty: from the recorded ones
};
std::string restore_definition(const Host_Identity& identity, const Restore_Request& request);

struct Export_Request {
  std::string instance_name;
  std::string instance_uuid;
  std::string pool_id;
  std::vector<Object_Path> objects;
  std::string compression;
  int compression_level = 1;
  uint64_t rate_limit_bytes_per_second = 0;
};
std::string export_definition(const Host_Identity& identity, const Export_Request& request);

struct Import_Request {
  std::string target_uuid;   ///< the instance that the object goes to
  std::string resource_uuid; ///< that the export was made of
  std::string export_id;
  std::string pool_id;       ///< that holds the export
  std::string pool_override; ///< read the archive from this pool; empty: from the recorded one
  Object_Path original;
  std::string dump_file; ///< of the original, as the export recorded it
  Object_Path target;
};
std::string import_definition(const Host_Identity& identity, const Import_Request& request);
} // namespace kestrel

#pragma once

#include "catalog/catalog_back_end.h"
#include "storage/directory_back_end.h"
#include "storage/pool_registry.h"

#include <cstdint>
#include <map>
#include <memory>
#include <string>

namespace kestrel
{
/// What was deleted, or is to be.
struct Deleted_Backup {
  std::string uuid;
  std::string catalog; ///< "oscar_brcmd" or "oscar"
  std::string resource_uuid;
  std::string pool_uuid;
  std::string pool_name; ///< empty when the file was kept
  std::string folder;
  std::string file;
  uint64_t stored_size = 0;
};

/// Why a backup was not deleted.
struct Deletion_Problem {
  enum Kind {
    none,
    not_found, ///< no catalog has it
    needed,    ///< others build on it
    shared,    ///< another record names the same stored file
    pool,      ///< the pool is not known, or does not lie here
    storage,   ///< the pool's directory or disk refuses
    busy,      ///< the catalog is in use: worth trying again
    catalog,   ///< the catalog refuses
    broken     ///< the catalog itself does not work
  } kind = none;
  std::string text; ///< one sentence: what, and what to do
};

/// Deletes backup sets of either kind together with their stored files.
///
/// A set that others build on is refused: those are deleted before it. The order is such that every end
/// half-way is seen and can be repeated: first the set is marked as unusable, with the reason that its
/// deletion has begun, so that no job and no restore takes it any more; then its file goes, and only when
/// that is gone for good its record. A backup that is recorded meanwhile finds its predecessor marked, or is
/// found here: then the mark is taken back.
///
/// Threads:   any.
/// Ownership: shares the catalog.
/// Errors:    false with `problem`; of what was begun the record stays, with the mark.
/// Crash:     as above: the same call again finishes it. A file that is gone already is no failure.
class Backup_Deletion
{
public:
  /// `retry_seconds`: how long a busy catalog is asked again; 0: once.
  Backup_Deletion(std::shared_ptr<Catalog_Back_End> catalog, const Pool_Registry& pools, int retry_seconds);

  [[nodiscard]] bool find(const std::string& uuid, Deleted_Backup& backup, Deletion_Problem& problem);
  /// `keep_file`: removes the record only, for instance when the disk of the pool is lost.
  [[nodiscard]] bool run(const std::string& uuid, bool keep_file, Deleted_Backup& deleted,
                         Deletion_Problem& problem);

private:
  struct Found;
  template <class Operation> void ask(Operation operation);
  json_spirit::Array rows(const std::string& catalog, const std::map<std::string, json_spirit::Value>& query);
  Found look_up(const std::string& uuid);
  void check_not_needed(const std::string& uuid);
  void check_not_shared(const Deleted_Backup& backup);
  void connect(const Deleted_Backup& backup, Pool_Info& pool, Directory_Back_End& back_end);
  void mark(const Found& found);
  void unmark(const Found& found);

  const std::shared_ptr<Catalog_Back_End> catalog_;
  const Pool_Registry pools_;
  const int retry_seconds_;
};
} // namespace kestrel

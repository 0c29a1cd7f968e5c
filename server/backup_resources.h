#pragma once

#include "agent/backup_deletion.h"
#include "catalog/catalog_back_end.h"
#include "rpc/rest_router.h"
#include "server/recent_reads.h"
#include "storage/pool_registry.h"

#include <memory>
#include <mutex>

namespace kestrel
{
/// Backups with their stored files over REST (below /k2/r/), for administrators:
///   DELETE backups/{uuid}?keep_file=0|1  -> {"uuid","catalog","pool","folder","file","size"}: record and
///   stored file
///                                           are gone; with keep_file only the record. 404; 409 needed
///                                           (others build on it), in_use (its chain is being read), shared,
///                                           pool; 422 catalog, 503 busy, 507 storage
/// What an end half-way leaves: Backup_Deletion.
/// Threads:   any; one deletion at a time. Ownership: shares the catalog; `reads` must outlive the router's
///            requests.
class Backup_Resources
{
public:
  Backup_Resources(const Pool_Registry& pools, std::shared_ptr<Catalog_Back_End> catalog,
                   const Recent_Reads& reads);
  void add_to(REST_Router& router);

private:
  REST_Reply remove(REST_Request& request);
  void check_unread(const Deleted_Backup& backup);
  [[noreturn]] static void refuse(const Deletion_Problem& problem);

  const std::shared_ptr<Catalog_Back_End> catalog_;
  Backup_Deletion deletion_;
  const Recent_Reads& reads_;
  std::mutex deletions_;
};
} // namespace kestrel

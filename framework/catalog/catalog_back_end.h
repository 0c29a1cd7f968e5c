#pragma once

#include "catalog/backup_record.h"
#include "catalog/catalog_admin.h"

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace kestrel
{
enum class Catalog_Status {
  done,
  busy,   ///< locked or unreachable: worth trying again
  failed, ///< refused for what was asked: trying again would not help
  broken  ///< the catalog itself does not work (its disk, its file, its database): somebody must repair it first
};

/// What stores the catalog. The local one keeps it in a SQL database; a host may register another that asks a
/// server.
/// Threads: all operations may be called from several threads at once.
/// Errors:  `error` gets one sentence with the catalog's place, the cause and what to do; results untouched.
///          No exception leaves an operation. One attempt a call: the callers do the waiting.
class Catalog_Back_End
{
public:
  virtual ~Catalog_Back_End();
  /// Views and query keys: Catalog_Operator::get_view().
  virtual Catalog_Status get_view(const std::string& catalog, const std::string& view,
                                  const std::map<std::string, json_spirit::Value>& query,
                                  json_spirit::Value& result, std::string& error) = 0;
  /// `warning` gets a sentence when the set was stored but cannot be restored.
  virtual Catalog_Status commit(const Backup_Record& record, bool must_be_new, std::string& warning,
                                std::string& error) = 0;
  virtual Catalog_Status set_state(const std::string& uuid, Set_State state, const std::string& reason,
                                   std::string& error) = 0;
  virtual Catalog_Status remove(const std::string& uuid, std::string& error) = 0;
  virtual Catalog_Status dependents(const std::string& uuid, std::vector<std::string>& uuids,
                                    std::string& error) = 0;
  virtual Catalog_Status count_by_pool(const std::string& pool_uuid, uint64_t& count, std::string& error) = 0;
};

/// The back end in use: the registered one, else the local catalog.
std::shared_ptr<Catalog_Back_End> catalog_back_end();
/// Hosts call it at start; null goes back to the local catalog. Calls under way keep the one that they began
/// with.
void register_catalog_back_end(std::shared_ptr<Catalog_Back_End> back_end);
} // namespace kestrel

#pragma once

#include "catalog/catalog_back_end.h"
#include "rpc/rest_router.h"
#include "storage/pool_registry.h"

#include <memory>

namespace kestrel
{
/// The pools of the server over REST (below /k2/r/):
///   GET    pools                 -> {"pools":[POOL,...]} in the order in which they were added
///   GET    pools/{id or name}    -> POOL: {"id","name","path","back_end","default","total_bytes",
///                                   "free_bytes"}; the two sizes are missing when the directory cannot be examined
///   GET    pools/{id or name}/count -> {"count"}: backup sets in it
///   POST   pools                 {"name","path","default"} -> POOL
///   DELETE pools/{id or name}    409 while backup sets lie in it
///   PUT    pools/default         {"pool"} -> POOL
/// Threads:   any. Ownership: shares the catalog; must outlive the router's requests.
class Pool_Resources
{
public:
  Pool_Resources(const Pool_Registry& pools, std::shared_ptr<Catalog_Back_End> catalog);
  void add_to(REST_Router& router);

private:
  REST_Reply list(REST_Request& request);
  REST_Reply show(REST_Request& request);
  REST_Reply count(REST_Request& request);
  REST_Reply add(REST_Request& request);
  REST_Reply remove(REST_Request& request);
  REST_Reply set_default(REST_Request& request);
  json_spirit::Object describe(const Pool_Info& pool) const;
  uint64_t count_in(const Pool_Info& pool);

  Pool_Registry pools_;
  const std::shared_ptr<Catalog_Back_End> catalog_;
};

/// The pool of this id or name; throws REST_Error 404.
Pool_Info find_pool_or_refuse(const Pool_Registry& pools, const std::string& id_or_name);
} // namespace kestrel

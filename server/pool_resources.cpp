#include "server/pool_resources.h"

#include "json/json_util.h"
#include "remote/record_json.h"
#include "server/catalog_resources.h"

#include <sys/statvfs.h>

namespace kestrel
{
namespace
{
using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;

REST_Reply answer(Object object, const std::string& audit = std::string())
{
  REST_Reply reply;
  reply.json = std::move(object);
  reply.audit = audit;
  return reply;
}
} // namespace

Pool_Info find_pool_or_refuse(const Pool_Registry& pools, const std::string& id_or_name)
{
  std::vector<Pool_Info> all;
  std::string error;
  // A list that cannot be read is no missing pool.
  if (!pools.list(all, error))
    throw REST_Error(500, "pools", error);
  Pool_Info pool;
  if (!pools.find(id_or_name, pool, error))
    throw REST_Error(404, "not_found", error);
  return pool;
}

Pool_Resources::Pool_Resources(const Pool_Registry& pools, std::shared_ptr<Catalog_Back_End> catalog)
    : pools_(pools), catalog_(std::move(catalog))
{
}

void Pool_Resources::add_to(REST_Router& router)
{
  router.add("GET", "/k2/r/pools", REST_Access::agent_or_viewer,
             [this](REST_Request& request) { return list(request); });
  router.add("GET", "/k2/r/pools/{pool}", REST_Access::agent_or_viewer,
             [this](REST_Request& request) { return show(request); });
  router.add("GET", "/k2/r/pools/{pool}/count", REST_Access::agent_or_viewer,
             [this](REST_Request& request) { return count(request); });
  router.add("POST", "/k2/r/pools", REST_Access::admin,
             [this](REST_Request& request) { return add(request); });
  router.add("DELETE", "/k2/r/pools/{pool}", REST_Access::admin,
             [this](REST_Request& request) { return remove(request); });
  router.add("PUT", "/k2/r/pools/default", REST_Access::admin,
             [this](REST_Request& request) { return set_default(request); });
}

Object Pool_Resources::describe(const Pool_Info& pool) const
{
  Object object = pool_json(pool);
  Pool_Info chosen;
  std::string none;
  object.emplace_back("default", pools_.default_pool(chosen, none) && chosen.pool_id == pool.pool_id);
  struct statvfs status;
  if (::statvfs(pool.storage_path.c_str(), &status) == 0) {
    const uint64_t block = status.f_frsize;
    object.emplace_back("total_bytes", uint64_t(status.f_blocks) * block);
    object.emplace_back("free_bytes", uint64_t(status.f_bavail) * block);
  }
  return object;
}

REST_Reply Pool_Resources::list(REST_Request&)
{
  std::vector<Pool_Info> pools;
  std::string error;
  if (!pools_.list(pools, error))
    throw REST_Error(500, "pools", error);
  Array described;
  for (const Pool_Info& pool : pools)
    described.push_back(describe(pool));
  return answer({{"pools", std::move(described)}});
}

REST_Reply Pool_Resources::show(REST_Request& request)
{
  return answer(describe(find_pool_or_refuse(pools_, request.vars["pool"])));
}

uint64_t Pool_Resources::count_in(const Pool_Info& pool)
{
  uint64_t number = 0;
  std::string error;
  check_catalog(catalog_->count_by_pool(pool.pool_id, number, error), error);
  return number;
}

REST_Reply Pool_Resources::count(REST_Request& request)
{
  // Sets may lie in a pool that the list no longer knows.
  Pool_Info pool;
  std::string error;
  if (!pools_.find(request.vars["pool"], pool, error))
    pool.pool_id = request.vars["pool"];
  return answer({{"count", count_in(pool)}});
}

REST_Reply Pool_Resources::add(REST_Request& request)
{
  const Object& body = request.json.get_obj();
  const std::string path = required<std::string>(body, "path");
  if (path.empty() || path[0] != '/')
    throw REST_Error(400, "bad_request", "\"path\" must be an absolute directory of the server");
  bool as_default = false;
  optional(body, "default", as_default);
  Pool_Info pool;
  std::string error;
  if (!pools_.add(required<std::string>(body, "name"), path, pool, error))
    throw REST_Error(409, "pool", error);
  if (as_default && !pools_.set_default_pool(pool.pool_id, error))
    throw REST_Error(500, "pools", error);
  return answer(describe(pool), "pool " + pool.name);
}

REST_Reply Pool_Resources::remove(REST_Request& request)
{
  const Pool_Info pool = find_pool_or_refuse(pools_, request.vars["pool"]);
  const uint64_t number = count_in(pool);
  if (number > 0)
    throw REST_Error(409, "pool_in_use",
                     std::to_string(number) + " backups live in the pool " + pool.name + "; remove them first");
  std::string error;
  if (!pools_.remove(pool.pool_id, error))
    throw REST_Error(500, "pools", error);
  return answer(pool_json(pool), "pool " + pool.name);
}

REST_Reply Pool_Resources::set_default(REST_Request& request)
{
  const Pool_Info pool =
      find_pool_or_refuse(pools_, required<std::string>(request.json.get_obj(), "pool"));
  std::string error;
  if (!pools_.set_default_pool(pool.pool_id, error))
    throw REST_Error(500, "pools", error);
  return answer(describe(pool), "pool " + pool.name);
}
} // namespace kestrel

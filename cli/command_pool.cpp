#include "cli/pool_output.h"
#include "cli/session.h"

#include "catalog/catalog_admin.h"
#include "json/json_util.h"

namespace kestrel
{
namespace
{
/// Sets in the pool; a short wait only, as somebody is looking at the screen.
bool count_backups(const Pool_Info& pool, uint64_t& count, std::string& error)
{
  const int max_seconds_retry = 10;
  return Catalog_Admin(max_seconds_retry).count_by_pool(pool.pool_id, count, error);
}
} // namespace

int run_pool_add(Session& session)
{
  const Command_Line& line = session.line();
  std::string error;
  Pool_Info pool;
  Pool_Registry& pools = session.host().pools();
  if (!pools.add(line.pool, line.path, pool, error))
    return session.fail("the pool " + line.pool + " was not added: " + error);
  if (line.make_default && !pools.set_default_pool(pool.pool_id, error))
    return session.fail("the pool " + line.pool + " was added, but is not the default: " + error);
  session.result(json_of_pool(pool),
                 "Pool " + pool.name + " keeps its files in " + pool.storage_path + ".\n");
  return EXIT_CODE_DONE;
}

int run_pool_list(Session& session)
{
  std::string error;
  std::vector<Pool_Info> pools;
  if (!session.host().pools().list(pools, error))
    return session.fail("the pools cannot be listed: " + error);
  Pool_Info default_pool;
  if (!session.host().pools().default_pool(default_pool, error))
    default_pool.pool_id.clear();

  std::vector<Listed_Pool> listed;
  for (const Pool_Info& pool : pools) {
    uint64_t count = 0;
    if (!count_backups(pool, count, error))
      return session.fail("the pools cannot be listed: " + error);
    listed.push_back({pool, pool.pool_id == default_pool.pool_id, count});
  }
  show_pools(session, listed);
  return EXIT_CODE_DONE;
}

int run_pool_remove(Session& session)
{
  const std::string& name = session.line().pool;
  std::string error;
  Pool_Info pool;
  uint64_t count = 0;
  if (!session.host().pools().find(name, pool, error) || !count_backups(pool, count, error))
    return session.fail("the pool " + name + " was not removed: " + error);
  if (count > 0)
    return session.fail("the pool " + name + " was not removed: " + std::to_string(count) +
                        " backups live in it; kestrel backups lists them");
  if (!session.host().pools().remove(pool.pool_id, error))
    return session.fail("the pool " + name + " was not removed: " + error);
  session.result(json_of_pool(pool), "Pool " + pool.name + " is forgotten; its directory was left alone.\n");
  return EXIT_CODE_DONE;
}
} // namespace kestrel

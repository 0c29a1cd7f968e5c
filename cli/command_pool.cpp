#include "cli/session.h"
#include "cli/text_format.h"

#include "catalog/catalog_admin.h"
#include "json/json_util.h"

namespace kestrel
{
namespace
{
json_spirit::Object json_of(const Pool_Info& pool)
{
  json_spirit::Object object;
  set_value(object, "id", pool.pool_id);
  set_value(object, "name", pool.name);
  set_value(object, "path", pool.storage_path);
  return object;
}

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
  session.result(json_of(pool), "Pool " + pool.name + " keeps its files in " + pool.storage_path + ".\n");
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

  json_spirit::Array list;
  std::vector<std::vector<std::string>> rows = {{"NAME", "DEFAULT", "BACKUPS", "PATH"}};
  for (const Pool_Info& pool : pools) {
    uint64_t count = 0;
    if (!count_backups(pool, count, error))
      return session.fail("the pools cannot be listed: " + error);
    const bool is_default = pool.pool_id == default_pool.pool_id;
    json_spirit::Object object = json_of(pool);
    set_value(object, "default", is_default);
    set_value(object, "backups", count);
    list.push_back(object);
    rows.push_back({pool.name, is_default ? "yes" : "", std::to_string(count), pool.storage_path});
  }
  json_spirit::Object json;
  set_value(json, "pools", list);
  session.result(json, pools.empty()
                           ? "There is no pool yet. Add one: kestrel pool add NAME --path DIR --default\n"
                           : format_table(rows, {2}));
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
  session.result(json_of(pool), "Pool " + pool.name + " is forgotten; its directory was left alone.\n");
  return EXIT_CODE_DONE;
}
} // namespace kestrel

#include "cli/pool_output.h"
#include "cli/served_commands.h"
#include "cli/served_json.h"

#include "json/json_util.h"

namespace kestrel
{
namespace
{
bool count_backups(Console& console, const Pool_Info& pool, uint64_t& count)
{
  json_spirit::Object reply;
  if (!console.get({"pools", pool.pool_id, "count"}, reply))
    return false;
  count = static_cast<uint64_t>(number_in(reply, "count"));
  return true;
}
} // namespace

bool Console::load_pools(std::string& error)
{
  if (pools_loaded_)
    return true;
  REST_Problem problem;
  std::vector<json_spirit::Object> entries;
  if (!try_get_list({"pools"}, {}, "pools", entries, problem)) {
    error = problem.text;
    return false;
  }
  for (const json_spirit::Object& entry : entries) {
    Pool_Info pool;
    pool.pool_id = text_in(entry, "id");
    pool.name = text_in(entry, "name");
    pool.storage_path = text_in(entry, "path");
    if (flag_in(entry, "default"))
      default_pool_ = pool.pool_id;
    pools_.push_back(pool);
  }
  pools_loaded_ = true;
  return true;
}

bool Console::pools(std::vector<Pool_Info>& pools, std::string& default_id, std::string& error)
{
  if (!load_pools(error))
    return false;
  pools = pools_;
  default_id = default_pool_;
  return true;
}

bool Console::find_pool(const std::string& id_or_name, Pool_Info& pool, std::string& error)
{
  if (!load_pools(error))
    return false;
  const std::string& wanted = id_or_name.empty() ? default_pool_ : id_or_name;
  for (const bool by_id : {true, false}) {
    for (const Pool_Info& candidate : pools_) {
      if (!wanted.empty() && (by_id ? candidate.pool_id : candidate.name) == wanted) {
        pool = candidate;
        return true;
      }
    }
  }
  error = id_or_name.empty() ? "the server has no default pool"
                             : "the server has no pool " + id_or_name + "; 'kestrel pool list' lists them";
  return false;
}

int served_pool_add(Console& console)
{
  const Command_Line& line = console.line();
  json_spirit::Object body;
  set_value(body, "name", line.pool);
  set_value(body, "path", line.path);
  set_value(body, "default", line.make_default);
  json_spirit::Object reply;
  if (!console.send("POST", {"pools"}, body, reply))
    return EXIT_CODE_FAILED;
  Pool_Info pool;
  pool.pool_id = text_in(reply, "id");
  pool.name = line.pool;
  pool.storage_path = text_in(reply, "path");
  if (pool.pool_id.empty())
    return console.fail_answer("the new pool's id");
  console.result(json_of_pool(pool),
                 "Pool " + pool.name + " keeps its files in " + pool.storage_path + " of the server.\n");
  return EXIT_CODE_DONE;
}

int served_pool_list(Console& console)
{
  std::vector<Pool_Info> pools;
  std::string default_id;
  std::string error;
  if (!console.pools(pools, default_id, error))
    return console.fail("the pools cannot be listed: " + error);
  std::vector<Listed_Pool> listed;
  for (const Pool_Info& pool : pools) {
    uint64_t count = 0;
    if (!count_backups(console, pool, count))
      return EXIT_CODE_FAILED;
    listed.push_back({pool, pool.pool_id == default_id, count});
  }
  show_pools(console, listed);
  return EXIT_CODE_DONE;
}

int served_pool_remove(Console& console)
{
  Pool_Info pool;
  std::string error;
  if (!console.find_pool(console.line().pool, pool, error))
    return console.fail("the pool " + console.line().pool + " was not removed: " + error);
  json_spirit::Object reply;
  if (!console.send("DELETE", {"pools", pool.pool_id}, json_spirit::Value(), reply))
    return EXIT_CODE_FAILED;
  console.result(json_of_pool(pool), "Pool " + pool.name + " is forgotten; its directory was left alone.\n");
  return EXIT_CODE_DONE;
}
} // namespace kestrel

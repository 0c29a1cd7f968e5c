#include "cli/pool_output.h"

#include "cli/text_format.h"
#include "json/json_util.h"

namespace kestrel
{
json_spirit::Object json_of_pool(const Pool_Info& pool)
{
  json_spirit::Object object;
  set_value(object, "id", pool.pool_id);
  set_value(object, "name", pool.name);
  set_value(object, "path", pool.storage_path);
  return object;
}

void show_pools(Command_Output& output, const std::vector<Listed_Pool>& pools)
{
  json_spirit::Array list;
  std::vector<std::vector<std::string>> rows = {{"NAME", "DEFAULT", "BACKUPS", "PATH"}};
  for (const Listed_Pool& listed : pools) {
    json_spirit::Object object = json_of_pool(listed.pool);
    set_value(object, "default", listed.is_default);
    set_value(object, "backups", listed.backups);
    list.push_back(object);
    rows.push_back({listed.pool.name, listed.is_default ? "yes" : "", std::to_string(listed.backups),
                    listed.pool.storage_path});
  }
  json_spirit::Object json;
  set_value(json, "pools", list);
  output.result(json, pools.empty()
                          ? "There is no pool yet. Add one: kestrel pool add NAME --path DIR --default\n"
                          : format_table(rows, {2}));
}
} // namespace kestrel

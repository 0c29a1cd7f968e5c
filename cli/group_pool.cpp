#include "cli/command_groups.h"
#include "cli/served_commands.h"
#include "cli/session.h"

#include <CLI/CLI.hpp>

namespace kestrel
{
void add_pool_commands(Command_Registry& registry)
{
  Command_Line& line = registry.line();
  registry.group("pool", "Add, list and remove storage pools");
  CLI::App& add =
      registry.add("pool add", "Add a directory as a storage pool", {run_pool_add, nullptr, served_pool_add});
  add.add_option("NAME", line.pool, "name of the pool")->required();
  add.add_option("--path", line.path, "existing directory that holds the pool's files")->required();
  add.add_flag("--default", line.make_default, "use this pool when a backup names none");
  registry.add("pool list", "List the storage pools", {run_pool_list, nullptr, served_pool_list});
  CLI::App& remove = registry.add("pool remove", "Forget a pool that holds no backups",
                                  {run_pool_remove, nullptr, served_pool_remove});
  remove.add_option("NAME", line.pool, "name of the pool")->required();
}
} // namespace kestrel

#include "cli/command_groups.h"

namespace kestrel
{
void add_all_commands(Command_Registry& registry)
{
  add_instance_commands(registry);

  add_pool_commands(registry);

  add_backup_commands(registry);

  add_logical_commands(registry);

  add_job_commands(registry);

  add_console_commands(registry);

  add_admin_commands(registry);

  add_agent_commands(registry);

  add_server_commands(registry);
}
} // namespace kestrel

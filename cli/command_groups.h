#pragma once

#include "cli/command_registry.h"

namespace kestrel
{
/// The groups of commands, in the order of --help. A new group is declared here, called in
/// command_groups.cpp, and defined in the file named beside it.
void add_instance_commands(Command_Registry& registry); // group_instance.cpp

void add_pool_commands(Command_Registry& registry); // group_pool.cpp

void add_backup_commands(Command_Registry& registry); // group_backup.cpp

void add_logical_commands(Command_Registry& registry); // group_logical.cpp

void add_job_commands(Command_Registry& registry); // group_job.cpp

void add_console_commands(Command_Registry& registry); // group_console.cpp

void add_admin_commands(Command_Registry& registry); // group_admin.cpp

void add_agent_commands(Command_Registry& registry); // group_agent.cpp

void add_server_commands(Command_Registry& registry); // group_server.cpp
} // namespace kestrel

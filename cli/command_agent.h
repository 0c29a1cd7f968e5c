#pragma once

#include "agent/agent_daemon.h"

namespace kestrel
{
struct Command_Line;

/// Runs the agent until a signal ends it. The exit code of the process.
int run_agent(const Command_Line& line, Agent_Daemon::Options options);
/// Lists the runs that this host's agent has a record of, from its database: no agent and no server need to
/// run.
int run_agent_history(const Command_Line& line);
} // namespace kestrel

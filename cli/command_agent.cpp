#include "cli/command_agent.h"

#include "cli/command_line.h"

namespace kestrel
{
int run_agent(const Command_Line& line, Agent_Daemon::Options options)
{
  options.stderr_log = line.verbose;
  Agent_Daemon agent(options);
  return agent.run();
}
} // namespace kestrel

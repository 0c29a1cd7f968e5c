#include "cli/command_agent.h"
#include "cli/command_groups.h"

#include <CLI/CLI.hpp>

#include <memory>

namespace kestrel
{
void add_agent_commands(Command_Registry& registry)
{
  const auto options = std::make_shared<Agent_Daemon::Options>();
  CLI::App& agent = registry.add("agent", "Run this host's agent: schedules, and what the backup server asks for",
                                 {nullptr, [options](const Command_Line& line) { return run_agent(line, *options); }});
  agent.add_option("--server", options->server_url,
                   "https://HOST:PORT of the backup server, instead of the one in agent.toml and in the enrollment");
  agent.add_option("--enrollment", options->enrollment,
                   "file of 'kestrel server enroll' to take over; not needed any more afterwards");
  agent.add_option("--config", options->config, "settings; agent.toml of the state directory when not given");
}
} // namespace kestrel

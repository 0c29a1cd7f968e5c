#include "cli/command_agent.h"
#include "cli/command_groups.h"
#include "cli/common_options.h"

#include <CLI/CLI.hpp>

#include <memory>

namespace kestrel
{
void add_agent_commands(Command_Registry& registry)
{
  const auto options = std::make_shared<Agent_Daemon::Options>();
  CLI::App& agent =
      registry.add("agent", "Run this host's agent: schedules, and what the backup server asks for",
                   {nullptr, [options](const Command_Line& line) { return run_agent(line, *options); }});
  agent.add_option(
      "--server", options->server_url,
      "https://HOST:PORT of the backup server, instead of the one in agent.toml and in the enrollment");
  agent.add_option("--enrollment", options->enrollment,
                   "file of 'kestrel server enroll' to take over; not needed any more afterwards");
  agent.add_option("--config", options->config, "settings; agent.toml of the state directory when not given");

  Command_Line& line = registry.line();
  CLI::App& history =
      registry.add("agent history",
                   "List the runs that this host's agent keeps, newest first; needs neither agent nor server",
                   {nullptr, run_agent_history});
  history.add_option("JOB", line.names, "only of this job: id, a unique beginning of it, or name")
      ->expected(0, 1);
  add_limit_option(history, line, "the newest N only; 0 = all");
}
} // namespace kestrel

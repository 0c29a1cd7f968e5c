#include "cli/command_groups.h"
#include "cli/session.h"

#include <CLI/CLI.hpp>

namespace kestrel
{
void add_job_commands(Command_Registry& registry)
{
  CLI::App& run = registry.add("run", "Run a job definition document", {run_definition_file, nullptr});
  run.add_option("FILE", registry.line().file, "job definition (JSON); '-' reads standard input")->required();
}
} // namespace kestrel

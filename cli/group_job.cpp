#include "cli/command_groups.h"
#include "cli/common_options.h"
#include "cli/served_commands.h"
#include "cli/session.h"

#include <CLI/CLI.hpp>

namespace kestrel
{
namespace
{
const char* const job_help = "id of a job, a unique beginning of it, or its name";

void add_hosts_option(CLI::App& command, Command_Line& line, const std::string& help)
{
  // One a time, so that what follows is not taken for another host.
  command.add_option("--host", line.hosts, help)->allow_extra_args(false);
}

/// One of the requests that a job can be given.
CLI::App& add_control(Command_Registry& registry, const std::string& action, const std::string& help,
                      int (*command)(Console&))
{
  Command_Line& line = registry.line();
  CLI::App& added = registry.add("job " + action, help, {nullptr, nullptr, command});
  added.add_option("JOB", line.names, job_help)->required()->expected(1);
  // The others are about the definition, which all hosts share.
  if (action != "show" && action != "enable" && action != "disable" && action != "remove")
    add_hosts_option(added, line, "on this host only; may be given several times");
  return added;
}

void add_define(Command_Registry& registry)
{
  Command_Line& line = registry.line();
  CLI::App& define = registry.add("job define", "Make a job, or change the one with its id or name",
                                  {nullptr, nullptr, served_job_define});
  define.add_option("FILE", line.file, "job definition (JSON); '-' reads standard input")->required();
  add_hosts_option(
      define, line,
      "host that runs it; several times for a cluster; without it, as before or where the instance is");
  define.add_flag("--disabled", line.disabled, "its schedules do not run until it is enabled");
}

void add_runs(Command_Registry& registry)
{
  Command_Line& line = registry.line();
  CLI::App& runs = registry.add("job runs", "List the runs that have ended, newest first",
                                {nullptr, nullptr, served_job_runs});
  runs.add_option("JOB", line.names, job_help)->expected(0, 1);
  runs.add_option("--host", line.host, "only those on this host");
  add_limit_option(runs, line, "the newest N only");

  CLI::App& log = registry.add("job log", "Print the log of a run", {nullptr, nullptr, served_job_log});
  log.add_option("RUN", line.names, "id of a run or a unique beginning of it; a job means its newest run")
      ->required()
      ->expected(1);
  log.add_flag("--follow,-f", line.follow, "go on until the run has ended");
}
} // namespace

void add_job_commands(Command_Registry& registry)
{
  Command_Line& line = registry.line();
  CLI::App& run =
      registry.add("run", "Run a job definition document", {run_definition_file, nullptr, served_run_file});
  run.add_option("FILE", line.file, "job definition (JSON); '-' reads standard input")->required();
  add_hosts_option(run, line, "with --server: host that runs it, as for 'job define'");

  registry.add("jobs", "List the jobs of the backup server", {nullptr, nullptr, served_jobs});
  registry.group("job", "Define, run and look at jobs of the backup server");
  add_define(registry);
  add_control(registry, "show", "Show one job in full", served_job_show);
  CLI::App& run_job = add_control(registry, "run", "Run a job now", served_job_run);
  run_job.add_flag("--wait", line.wait, "follow the run; end as it ends");
  add_control(registry, "pause", "Pause a run under way", served_job_pause);
  add_control(registry, "resume", "Let a paused run go on", served_job_resume);
  add_control(registry, "cancel", "Cancel a run under way", served_job_cancel);
  add_control(registry, "abort", "Abort a run under way: it counts as failed, not as canceled", served_job_abort);
  add_control(registry, "switch", "Ask a run under way to switch", served_job_switch);
  add_control(registry, "enable", "Let the schedules of a job run", served_job_enable);
  add_control(registry, "disable", "Stop the schedules of a job", served_job_disable);
  add_control(registry, "remove", "Remove a job; its backups and the records of its runs stay",
              served_job_remove);
  add_runs(registry);
}
} // namespace kestrel

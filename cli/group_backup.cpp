#include "cli/command_groups.h"
#include "cli/common_options.h"
#include "cli/console.h"
#include "cli/session.h"

#include <CLI/CLI.hpp>

#include <map>

namespace kestrel
{
namespace
{
/// Accepts the long names of levels and turns them into the short ones.
CLI::Validator backup_level()
{
  const std::map<std::string, std::string> names = {
      {"incremental", "incr"}, {"differential", "diff"}, {"cumulative", "diff"}};
  return CLI::Validator(
      [names](std::string& level) {
        const auto found = names.find(level);
        if (found != names.end())
          level = found->second;
        return level == "full" || level == "incr" || level == "diff"
                   ? std::string()
                   : "'" + level + "' is not a level; there are full, incr and diff";
      },
      "full|incr|diff");
}

void add_backup(Command_Registry& registry)
{
  Command_Line& line = registry.line();
  CLI::App& backup = registry.add("backup", "Back an instance up", {run_backup, nullptr, run_backup});
  backup.add_option("INSTANCE", line.instance, "name of the instance")->required();
  backup
      .add_option("--level", line.level,
                  "everything (full), what changed since the last backup (incr) or since the "
                  "last full one (diff)")
      ->transform(backup_level())
      ->capture_default_str();
  add_storage_options(backup, line);
  add_host_option(backup, line, instance_host_help);
}

void add_verify(Command_Registry& registry)
{
  Command_Line& line = registry.line();
  CLI::App& verify =
      registry.add("verify", "Read every stored byte of backups the way a restore does and check it",
                   {run_verify, nullptr, nullptr});
  CLI::Option* named = verify.add_option("BACKUP", line.names,
                                         std::string(backup_reference_help) +
                                             "; with what they build on; every chain when none is named");
  verify.add_flag("--all", line.all, "every chain")->excludes(named);
  verify.add_option("--instance", line.instance,
                    "only backups of this instance; the one that 'latest' refers to");
}

void add_delete(Command_Registry& registry)
{
  Command_Line& line = registry.line();
  CLI::App& remove = registry.add("delete", "Delete backups and exports with their stored files",
                                  {run_delete, nullptr, run_delete});
  remove.add_option("BACKUP", line.names, backup_reference_help)->required();
  remove.add_option("--instance", line.instance, "instance that 'latest' refers to");
  add_host_option(remove, line, instance_host_help);
  remove.add_flag("--dependents", line.dependents, "also the backups that build on them");
  remove.add_flag("--keep-file", line.keep_file,
                  "leave the stored files, such as those on a lost disk, and delete the records only");
  remove.add_flag("--yes,-y", line.assume_yes, "do not ask");
}
} // namespace

void add_backup_commands(Command_Registry& registry)
{
  Command_Line& line = registry.line();
  add_backup(registry);

  CLI::App& backups =
      registry.add("backups", "List backups, newest first", {run_backups, nullptr, run_backups});
  backups.add_option("INSTANCE", line.instance, "only those of this instance");
  add_limit_option(backups, line, "the newest N only; 0 lists all");
  add_host_option(backups, line, instance_host_help);

  CLI::App& show = registry.add("show", "Show one backup in full", {run_show, nullptr, run_show});
  show.add_option("BACKUP", line.names, backup_reference_help)->required()->expected(1);
  show.add_option("--instance", line.instance, "instance that 'latest' refers to");
  add_host_option(show, line, instance_host_help);

  add_verify(registry);
  add_delete(registry);

  CLI::App& restore =
      registry.add("restore", "Restore an instance from a backup", {run_restore, nullptr, run_restore});
  restore.add_option("BACKUP", line.names, backup_reference_help)->required()->expected(1);
  restore.add_option("--instance", line.instance,
                     "instance that 'latest' refers to; where to restore a backup of an instance that is not "
                     "known any more");
  add_host_option(restore, line, instance_host_help);
  restore.add_option("--pool", line.pool, "read the stored files from this pool");
  restore.add_flag("--yes,-y", line.assume_yes, "do not ask");
}
} // namespace kestrel

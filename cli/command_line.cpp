#include "cli/command_line.h"

#include "base/version.h"
#include "cli/exit_code.h"

#include <CLI/CLI.hpp>

#include <map>

namespace kestrel
{
namespace
{
const char* const backup_help =
    "id, a unique beginning of it, or 'latest' (with --instance, or when one instance has backups)";

CLI::App* add_command(CLI::App& parent, Command_Line& line, const std::string& name, const std::string& help,
                      Command command)
{
  CLI::App* added = parent.add_subcommand(name, help);
  added->callback([&line, command] { line.command = command; });
  return added;
}

void add_instance_commands(CLI::App& app, Command_Line& line)
{
  add_command(app, line, "instances", "List the OSCAR instances of this host", Command::instances);

  CLI::App* login = add_command(app, line, "login", "Test a login and keep the account", Command::login);
  login->add_option("INSTANCE", line.instance, "name of the instance")->required();
  login->add_option("--user,-u", line.user, "database user")->required();
  login->add_option(
      "--password-file", line.password_file,
      "file whose first line is the password; '-' reads standard input; asked for when not given");
}

void add_pool_commands(CLI::App& app, Command_Line& line)
{
  CLI::App* pool = app.add_subcommand("pool", "Add, list and remove storage pools");
  pool->require_subcommand(1);
  CLI::App* add = add_command(*pool, line, "add", "Add a directory as a storage pool", Command::pool_add);
  add->add_option("NAME", line.pool, "name of the pool")->required();
  add->add_option("--path", line.path, "existing directory that holds the pool's files")->required();
  add->add_flag("--default", line.make_default, "use this pool when a backup names none");
  add_command(*pool, line, "list", "List the storage pools", Command::pool_list);
  CLI::App* remove =
      add_command(*pool, line, "remove", "Forget a pool that holds no backups", Command::pool_remove);
  remove->add_option("NAME", line.pool, "name of the pool")->required();
}

CLI::Validator unsigned_number()
{
  return CLI::Validator(
      [](std::string& text) {
        const bool digit_first = !text.empty() && text.front() >= '0' && text.front() <= '9';
        return digit_first ? std::string() : "'" + text + "' is not a number of bytes";
      },
      "");
}

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

void add_storage_options(CLI::App& command, Command_Line& line)
{
  command.add_option("--pool", line.pool, "pool to store it in; the default pool when not given");
  command.add_option("--compression", line.compression, "compression method")
      ->check(CLI::IsMember({"none", "zlib", "lz4", "zstd"}))
      ->capture_default_str();
  command.add_option("--compression-level", line.compression_level, "level of the method; 1 when not given")
      ->check(CLI::Range(1, 22));
  command
      .add_option("--rate-limit", line.rate_limit_bytes_per_second,
                  "bytes a second at the most; k, m and g (1024 based) may follow the number")
      ->transform(CLI::AsSizeValue(false))
      ->transform(unsigned_number()); // runs first: the size parser would wrap "-1" around
}

void add_backup_command(CLI::App& app, Command_Line& line)
{
  CLI::App* backup = add_command(app, line, "backup", "Back an instance up", Command::backup);
  backup->add_option("INSTANCE", line.instance, "name of the instance")->required();
  backup
      ->add_option("--level", line.level,
                   "everything (full), what changed since the last backup (incr) or since the "
                   "last full one (diff)")
      ->transform(backup_level())
      ->capture_default_str();
  add_storage_options(*backup, line);
}

void add_catalog_commands(CLI::App& app, Command_Line& line)
{
  CLI::App* backups = add_command(app, line, "backups", "List backups, newest first", Command::backups);
  backups->add_option("INSTANCE", line.instance, "only those of this instance");
  backups->add_option("--limit", line.limit, "the newest N only; 0 lists all")->capture_default_str();

  CLI::App* show = add_command(app, line, "show", "Show one backup in full", Command::show);
  show->add_option("BACKUP", line.names, backup_help)->required()->expected(1);
  show->add_option("--instance", line.instance, "instance that 'latest' refers to");

  CLI::App* verify =
      add_command(app, line, "verify",
                  "Read every stored byte of backups the way a restore does and check it", Command::verify);
  CLI::Option* named = verify->add_option("BACKUP", line.names,
                                          std::string(backup_help) +
                                              "; with what they build on; every chain when none is named");
  verify->add_flag("--all", line.all, "every chain")->excludes(named);
  verify->add_option("--instance", line.instance,
                     "only backups of this instance; the one that 'latest' refers to");

  CLI::App* restore =
      add_command(app, line, "restore", "Restore an instance from a backup", Command::restore);
  restore->add_option("BACKUP", line.names, backup_help)->required()->expected(1);
  restore->add_option("--instance", line.instance, "instance that 'latest' refers to");
  restore->add_option("--pool", line.pool, "read the stored files from this pool");
  restore->add_flag("--yes,-y", line.assume_yes, "do not ask");
}

void add_logical_commands(CLI::App& app, Command_Line& line)
{
  CLI::App* const exporter =
      add_command(app, line, "export", "Export databases, schemas and tables; the instance stays up",
                  Command::export_objects);
  exporter
      ->add_option(
          "OBJECT", line.names,
          "INSTANCE (its database), INSTANCE/DATABASE/SCHEMA or INSTANCE/DATABASE/SCHEMA/TABLE; several of "
          "one instance make one export")
      ->required();
  add_storage_options(*exporter, line);

  CLI::App* const importer =
      add_command(app, line, "import", "Import an object of an export, replacing the one of that name",
                  Command::import_object);
  importer->add_option("BACKUP", line.names, "id of an export, a unique beginning of it, or 'latest'")
      ->required()
      ->expected(1);
  importer->add_option("--original", line.original,
                       "which object of the export; not needed when it holds only one");
  importer->add_option("--as", line.target,
                       "where to: INSTANCE[/DATABASE[/SCHEMA[/TABLE]]]; names left off stay as they were");
  importer->add_option("--pool", line.pool, "read the archive from this pool");
  importer->add_flag("--yes,-y", line.assume_yes, "do not ask");
}
} // namespace

bool parse_command_line(int argc, char** argv, Command_Line& line, int& exit_code)
{
  CLI::App app("Backs OSCAR databases up and brings them back.", "kestrel");
  app.set_version_flag("--version", std::string("kestrel ") + version());
  app.add_option("--root", line.root, "private tree that takes the place of / for the product's own files")
      ->envname("KESTREL_ROOT");
  app.add_flag("--json", line.json, "print results as JSON");
  app.add_flag("--verbose,-v", line.verbose, "show log lines as well");
  app.add_flag("--quiet,-q", line.quiet, "no progress");
  app.require_subcommand(1);
  app.fallthrough();
  app.get_formatter()->column_width(34);
  app.footer("Exit codes: 0 done, 1 failed, 2 usage, 3 canceled, 4 skipped.");

  add_instance_commands(app, line);
  add_pool_commands(app, line);
  add_backup_command(app, line);
  add_catalog_commands(app, line);
  add_logical_commands(app, line);
  CLI::App* run = add_command(app, line, "run", "Run a job definition document", Command::run);
  run->add_option("FILE", line.file, "job definition (JSON); '-' reads standard input")->required();

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    exit_code = app.exit(error) == 0 ? EXIT_CODE_DONE : EXIT_CODE_USAGE;
    return false;
  }
  return true;
}
} // namespace kestrel

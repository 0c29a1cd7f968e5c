#include "cli/command_groups.h"
#include "cli/common_options.h"
#include "cli/console.h"
#include "cli/session.h"

#include <CLI/CLI.hpp>

namespace kestrel
{
void add_logical_commands(Command_Registry& registry)
{
  Command_Line& line = registry.line();
  CLI::App& exporter = registry.add("export", "Export databases, schemas and tables; the instance stays up",
                                    {run_export, nullptr, run_export});
  exporter
      .add_option(
          "OBJECT", line.names,
          "INSTANCE (its database), INSTANCE/DATABASE/SCHEMA or INSTANCE/DATABASE/SCHEMA/TABLE; several of "
          "one instance make one export")
      ->required();
  add_storage_options(exporter, line);
  add_host_option(exporter, line, instance_host_help);

  CLI::App& importer = registry.add("import", "Import an object of an export, replacing the one of that name",
                                    {run_import, nullptr, run_import});
  importer.add_option("BACKUP", line.names, "id of an export, a unique beginning of it, or 'latest'")
      ->required()
      ->expected(1);
  importer.add_option("--original", line.original,
                      "which object of the export; not needed when it holds only one");
  importer.add_option("--as", line.target,
                      "where to: INSTANCE[/DATABASE[/SCHEMA[/TABLE]]]; names left off stay as they were");
  importer.add_option("--pool", line.pool, "read the archive from this pool");
  add_host_option(importer, line, instance_host_help);
  importer.add_flag("--yes,-y", line.assume_yes, "do not ask");
}
} // namespace kestrel

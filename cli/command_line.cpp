#include "cli/command_line.h"

#include "base/version.h"
#include "cli/command_registry.h"
#include "cli/exit_code.h"

#include <CLI/CLI.hpp>

#include <cstdio>
#include <cstring>
#include <vector>

namespace kestrel
{
namespace
{
bool has_word(int argc, char** argv, const char* word)
{
  const size_t length = std::strlen(word);
  for (int i = 1; i < argc; ++i)
    if (std::strncmp(argv[i], word, length) == 0 && (argv[i][length] == '\0' || argv[i][length] == '='))
      return true;
  return false;
}

/// The words where a command was to stand, when that was what is missing; empty when no word was there.
std::string unknown_command(CLI::App& app)
{
  std::string words;
  CLI::App* at = &app;
  for (std::vector<CLI::App*> below = at->get_subcommands(); !below.empty(); below = at->get_subcommands()) {
    at = below.front();
    words += at->get_name() + " ";
  }
  const std::vector<std::string> rest = app.remaining(true);
  if (at->get_require_subcommand_min() == 0 || rest.empty() || rest.front().empty() || rest.front()[0] == '-')
    return "";
  return words + rest.front();
}
} // namespace

bool parse_command_line(int argc, char** argv, Command_Line& line, int& exit_code)
{
  CLI::App app("Backs OSCAR databases up and brings them back.", "kestrel");
  app.set_version_flag("--version", std::string("kestrel ") + version());
  app.add_option("--root", line.root, "private tree that takes the place of / for the product's own files")
      ->envname("KESTREL_ROOT");
  app.add_option("--server", line.server,
                 "work through this backup server, https://HOST[:PORT]; without it, on this host alone")
      ->envname("KESTREL_SERVER");
  app.add_option("--ca", line.ca_file, "file with the authority of the server's certificate (PEM)");
  app.add_flag("--local", line.local, "on an enrolled host: use its own catalog and pools, which the server never sees");
  app.add_flag("--json", line.json, "print results as JSON");
  app.add_flag("--verbose,-v", line.verbose, "show log lines as well");
  app.add_flag("--quiet,-q", line.quiet, "no progress");
  app.require_subcommand(1);
  app.fallthrough();
  app.get_formatter()->column_width(34);
  app.footer("Exit codes: 0 done, 1 failed, 2 usage, 3 canceled, 4 skipped.");

  Command_Registry registry(app, line);
  add_all_commands(registry);
  try {
    app.parse(argc, argv);
    line.server_given = has_word(argc, argv, "--server");
  } catch (const CLI::RequiredError& error) {
    const std::string unknown = unknown_command(app);
    if (unknown.empty())
      app.exit(error);
    else
      std::fprintf(stderr, "There is no command '%s'.\nRun with --help for more information.\n",
                   unknown.c_str());
    exit_code = EXIT_CODE_USAGE;
    return false;
  } catch (const CLI::ParseError& error) {
    exit_code = app.exit(error) == 0 ? EXIT_CODE_DONE : EXIT_CODE_USAGE;
    return false;
  }
  return true;
}
} // namespace kestrel

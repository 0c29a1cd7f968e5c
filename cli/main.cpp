#include "cli/session.h"

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>

namespace
{
int run_command(kestrel::Session& session)
{
  using kestrel::Command;
  switch (session.line().command) {
  case Command::instances:
    return kestrel::run_instances(session);
  case Command::login:
    return kestrel::run_login(session);
  case Command::pool_add:
    return kestrel::run_pool_add(session);
  case Command::pool_list:
    return kestrel::run_pool_list(session);
  case Command::pool_remove:
    return kestrel::run_pool_remove(session);
  case Command::backup:
    return kestrel::run_backup(session);
  case Command::backups:
    return kestrel::run_backups(session);
  case Command::show:
    return kestrel::run_show(session);
  case Command::verify:
    return kestrel::run_verify(session);
  case Command::restore:
    return kestrel::run_restore(session);
  case Command::export_objects:
    return kestrel::run_export(session);
  case Command::import_object:
    return kestrel::run_import(session);
  case Command::run:
    return kestrel::run_definition_file(session);
  case Command::none:
    break;
  }
  return kestrel::EXIT_CODE_USAGE;
}
} // namespace

int main(int argc, char** argv)
{
  kestrel::Command_Line line;
  int exit_code = kestrel::EXIT_CODE_USAGE;
  try {
    if (!kestrel::parse_command_line(argc, argv, line, exit_code))
      return exit_code;
    // Absolute: the tools are given paths below it and may run elsewhere.
    if (!line.root.empty() &&
        ::setenv("KESTREL_ROOT", std::filesystem::absolute(line.root).c_str(), 1) != 0) {
      std::perror("kestrel: cannot set the root directory");
      return kestrel::EXIT_CODE_FAILED;
    }
    kestrel::Session session(line);
    return session.start() ? run_command(session) : kestrel::EXIT_CODE_FAILED;
  } catch (const std::exception& exception) {
    std::fprintf(stderr, "kestrel: unexpected failure: %s\n", exception.what());
    return kestrel::EXIT_CODE_FAILED;
  }
}

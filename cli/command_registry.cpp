#include "cli/command_registry.h"

#include <CLI/CLI.hpp>

namespace kestrel
{
CLI::App& Command_Registry::group(const std::string& name, const std::string& help)
{
  CLI::App* const added = app_.add_subcommand(name, help);
  added->require_subcommand(1);
  return *added;
}

CLI::App& Command_Registry::add(const std::string& words, const std::string& help,
                                const Command_Actions& actions)
{
  CLI::App* parent = &app_;
  size_t begin = 0;
  for (size_t blank = words.find(' '); blank != std::string::npos; blank = words.find(' ', begin)) {
    parent = parent->get_subcommand(words.substr(begin, blank - begin));
    begin = blank + 1;
  }
  CLI::App* const added = parent->add_subcommand(words.substr(begin), help);
  Command_Line& line = line_;
  added->callback([&line, added, words, actions] {
    // The parser calls the inner command first, then those around it.
    if (!added->get_subcommands().empty())
      return;
    line.command = words;
    line.actions = actions;
  });
  return *added;
}
} // namespace kestrel

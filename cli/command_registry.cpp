#include "cli/command_registry.h"

#include <CLI/CLI.hpp>

namespace kestrel
{
namespace
{
/// The parent of the last of the words, which were added before; `last` is that word.
CLI::App& parent_of(CLI::App& app, const std::string& words, std::string& last)
{
  CLI::App* parent = &app;
  size_t begin = 0;
  for (size_t blank = words.find(' '); blank != std::string::npos; blank = words.find(' ', begin)) {
    parent = parent->get_subcommand(words.substr(begin, blank - begin));
    begin = blank + 1;
  }
  last = words.substr(begin);
  return *parent;
}
} // namespace

CLI::App& Command_Registry::group(const std::string& words, const std::string& help)
{
  std::string last;
  CLI::App* const added = parent_of(app_, words, last).add_subcommand(last, help);
  added->require_subcommand(1);
  return *added;
}

CLI::App& Command_Registry::add(const std::string& words, const std::string& help,
                                const Command_Actions& actions)
{
  std::string last;
  CLI::App* const added = parent_of(app_, words, last).add_subcommand(last, help);
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

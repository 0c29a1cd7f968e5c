#pragma once

#include "cli/command_line.h"

#include <string>

namespace CLI
{
class App;
}

namespace kestrel
{
/// Where groups of commands put their commands and options. Each group is a file of its own with one function
/// that takes this; cli/command_groups.cpp lists them. Threads:   main thread. Ownership: neither parser nor
/// line is owned. Options of a command that no other command has may live in a struct
///            of the group's own, held by a shared_ptr that the actions capture.
class Command_Registry
{
public:
  Command_Registry(CLI::App& app, Command_Line& line) : app_(app), line_(line) {}

  /// A word that commands stand below, such as "pool" or, below another, "server user". It alone is a usage
  /// error.
  CLI::App& group(const std::string& words, const std::string& help);
  /// A command, "backup" or, below a group or another command that was added before, "pool add". With several
  /// words the last one that the user gave decides whose actions run.
  CLI::App& add(const std::string& words, const std::string& help, const Command_Actions& actions);

  /// Where options that several commands share are kept.
  Command_Line& line() { return line_; }

private:
  CLI::App& app_;
  Command_Line& line_;
};

/// Adds every command there is.
void add_all_commands(Command_Registry& registry);
} // namespace kestrel

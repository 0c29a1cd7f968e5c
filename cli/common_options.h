#pragma once

#include "cli/command_line.h"

namespace CLI
{
class App;
}

namespace kestrel
{
/// What BACKUP means in help texts.
extern const char* const backup_reference_help;

/// --host of a command on one instance.
extern const char* const instance_host_help;
void add_host_option(CLI::App& command, Command_Line& line, const std::string& help);

/// --limit of commands that list what may be many.
void add_limit_option(CLI::App& command, Command_Line& line, const std::string& help);

/// --pool, --compression, --compression-level and --rate-limit of commands that store something.
void add_storage_options(CLI::App& command, Command_Line& line);
} // namespace kestrel

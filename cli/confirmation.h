#pragma once

#include "cli/command_output.h"

namespace kestrel
{
/// Asks on the terminal whether to go on; --yes answers, and without a terminal nobody can, so nothing is
/// done; SIGINT and SIGTERM answer no. EXIT_CODE_DONE to go on, else the code to end with, after fail().
/// `work` is the noun for the message: "restore".
int ask_to_go_on(Command_Output& output, const std::string& work);
} // namespace kestrel

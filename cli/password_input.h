#pragma once

#include "base/secure_allocator.h"
#include "cli/exit_code.h"

#include <string>

namespace kestrel
{
/// Reads one password: from the terminal without echo (`file` empty), from standard input (`file` is "-"), or
/// from the first line of a file. Never from the command line, which other users of the host can read.
/// Threads:   main thread only: the terminal's mode is changed while it reads.
/// Units:     at most 1023 bytes; the line end is not part of the password.
/// Errors:    EXIT_CODE_DONE, else `error` is set and `password` untouched: EXIT_CODE_CANCELED when SIGINT or
///            SIGTERM has ended the question at the terminal, EXIT_CODE_FAILED otherwise (unreadable file,
///            empty password, no terminal, too long). The terminal's mode is restored on every path.
[[nodiscard]] Exit_Code read_password(const std::string& file, const std::string& prompt,
                                      secure_string& password, std::string& error);
} // namespace kestrel

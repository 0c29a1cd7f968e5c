#pragma once

#include "base/secure_allocator.h"

#include <string>

namespace kestrel
{
/// Reads one password: from the terminal without echo (`file` empty), from standard input (`file` is "-"), or
/// from the first line of a file. Never from the command line, which other users of the host can read.
/// Threads:   main thread only: the terminal's mode is changed while it reads.
/// Units:     at most 1023 bytes; the line end is not part of the password.
/// Errors:    false with `error` set (unreadable file, empty password, no terminal, too long); `password`
///            untouched. The terminal's mode is restored on every path, also when a signal ends the read.
[[nodiscard]] bool read_password(const std::string& file, const std::string& prompt, secure_string& password,
                                 std::string& error);

/// The exit code that goes with an error of read_password(): who ends the prompt with Ctrl-C cancels.
int password_exit_code(const std::string& error);
} // namespace kestrel

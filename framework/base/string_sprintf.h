#pragma once

#include <string>

/// printf into a string of any length. string_sprintf replaces the text, string_sprintf_append adds to it.
/// The arguments may point into `out` itself. Returns out.
/// Errors: a format that cannot be printed, or no memory, leaves `out` as it was.
__attribute__((format(printf, 2, 3))) std::string& string_sprintf(std::string& out, const char* format, ...);
__attribute__((format(printf, 2, 3))) std::string& string_sprintf_append(std::string& out, const char* format,
                                                                         ...);

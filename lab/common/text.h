/// Small text helpers of the stand-in, and the exception that ends a run with a message.
/// Threads: all functions are pure. Errors: parse functions throw Failure or return false as stated.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace oscar_lab
{

/// A run that cannot go on. The text is one line for the user; it never holds a password.
class Failure : public std::runtime_error
{
public:
  using std::runtime_error::runtime_error;
};

/// A command line that the tool does not accept; tools exit with 2 instead of 1.
class Usage_Failure : public Failure
{
public:
  using Failure::Failure;
};

/// Throws a Failure "WHAT: strerror(errno)".
[[noreturn]] void fail_errno(const std::string& what);

std::string to_upper(std::string text);
std::string to_lower(std::string text);
std::string trim(const std::string& text);
bool starts_with(const std::string& text, const std::string& prefix);
bool ends_with(const std::string& text, const std::string& suffix);
std::vector<std::string> split_lines(const std::string& text);

/// True when the whole text is a decimal number within [0, maximum].
bool parse_number(const std::string& text, std::uint64_t maximum, std::uint64_t& value);

/// The text as a JSON string with its quotes. Bytes above 0x7f pass unchanged.
std::string json_quote(const std::string& text);

/// "0/1A2B3C4D" to 64 bits and back.
std::uint64_t parse_lsn(const std::string& text);
std::string format_lsn(std::uint64_t lsn);

} // namespace oscar_lab

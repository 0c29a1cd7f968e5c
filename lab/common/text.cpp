#include "lab/common/text.h"

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace oscar_lab
{

void fail_errno(const std::string& what)
{
  throw Failure(what + ": " + std::strerror(errno));
}

std::string to_upper(std::string text)
{
  for (char& c : text)
    c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return text;
}

std::string to_lower(std::string text)
{
  for (char& c : text)
    c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

std::string trim(const std::string& text)
{
  const char* const blanks = " \t\r\n";
  const auto first = text.find_first_not_of(blanks);
  if (first == std::string::npos)
    return {};
  return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

bool starts_with(const std::string& text, const std::string& prefix)
{
  return text.compare(0, prefix.size(), prefix) == 0;
}

bool ends_with(const std::string& text, const std::string& suffix)
{
  return text.size() >= suffix.size() &&
         text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

std::vector<std::string> split_lines(const std::string& text)
{
  std::vector<std::string> lines;
  std::size_t begin = 0;
  while (begin < text.size()) {
    auto end = text.find('\n', begin);
    if (end == std::string::npos)
      end = text.size();
    lines.push_back(text.substr(begin, end - begin));
    begin = end + 1;
  }
  return lines;
}

bool parse_number(const std::string& text, std::uint64_t maximum, std::uint64_t& value)
{
  if (text.empty())
    return false;
  std::uint64_t number = 0;
  for (const char c : text) {
    if (c < '0' || c > '9')
      return false;
    const auto digit = static_cast<std::uint64_t>(c - '0');
    if (number > (UINT64_MAX - digit) / 10)
      return false;
    number = number * 10 + digit;
  }
  if (number > maximum)
    return false;
  value = number;
  return true;
}

std::string json_quote(const std::string& text)
{
  std::string quoted = "\"";
  for (const char c : text) {
    if (c == '"' || c == '\\') {
      quoted += '\\';
      quoted += c;
    } else if (static_cast<unsigned char>(c) < 0x20) {
      char escape[8];
      std::snprintf(escape, sizeof escape, "\\u%04x", static_cast<unsigned>(c));
      quoted += escape;
    } else {
      quoted += c;
    }
  }
  return quoted + "\"";
}

std::uint64_t parse_lsn(const std::string& text)
{
  unsigned high = 0;
  unsigned low = 0;
  int used = 0;
  if (std::sscanf(text.c_str(), "%X/%X%n", &high, &low, &used) != 2 || used != static_cast<int>(text.size()))
    throw Failure("not a log position: " + text);
  return (static_cast<std::uint64_t>(high) << 32) | low;
}

std::string format_lsn(std::uint64_t lsn)
{
  char text[32];
  std::snprintf(text, sizeof text, "%X/%X", static_cast<unsigned>(lsn >> 32),
                static_cast<unsigned>(lsn & 0xffffffffU));
  return text;
}

} // namespace oscar_lab

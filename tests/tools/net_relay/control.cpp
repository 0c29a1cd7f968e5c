#include "tools/net_relay/control.h"

#include "base/natoi.h"

#include <sstream>

namespace net_relay
{

namespace
{

bool parse_number(const std::string& value, std::uint64_t& number)
{
  const char* stop = nullptr;
  const std::uint64_t result = natoi<std::uint64_t>(value.c_str(), &stop);
  if (value.empty() || *stop != '\0')
    return false;
  number = result;
  return true;
}

bool parse_held(const std::string& value, bool& held)
{
  held = value == "hold";
  return held || value == "pass";
}

bool parse_accept(const std::string& value, Accept& accept)
{
  accept = value == "refuse" ? Accept::refuse : value == "hold" ? Accept::hold : Accept::pass;
  return accept != Accept::pass || value == "pass";
}

bool parse_scope(const std::string& value, Scope& scope)
{
  scope = value == "existing" ? Scope::existing : value == "new" ? Scope::recent : Scope::all;
  return scope != Scope::all || value == "all";
}

bool parse_line(const std::string& key, const std::string& value, Rules& rules)
{
  if (key == "up_delay_msec")
    return parse_number(value, rules.up.delay_msec);
  if (key == "down_delay_msec")
    return parse_number(value, rules.down.delay_msec);
  if (key == "up")
    return parse_held(value, rules.up.held);
  if (key == "down")
    return parse_held(value, rules.down.held);
  if (key == "rate")
    return parse_number(value, rules.rate_bytes_per_second);
  if (key == "accept")
    return parse_accept(value, rules.accept);
  if (key == "scope")
    return parse_scope(value, rules.scope);
  rules.cut = value;
  return key == "cut";
}

} // namespace

bool parse_rules(const std::string& text, Rules& rules, std::string& error)
{
  Rules result;
  std::istringstream lines(text);
  std::string line;
  while (std::getline(lines, line)) {
    const auto equals = line.find('=');
    if (line.empty())
      continue;
    if (equals == std::string::npos || !parse_line(line.substr(0, equals), line.substr(equals + 1), result)) {
      error = line;
      return false;
    }
  }
  rules = result;
  return true;
}

} // namespace net_relay

/// Command lines of the stand-in's tools. A tool names every option it takes; anything else is refused.
/// Values may be glued to a one-letter option ("-p2003") or follow it ("-p 2003"); long options take
/// "--name value" or "--name=value". No message repeats what was typed: it may be a password.
#pragma once

#include <map>
#include <set>
#include <string>
#include <vector>

namespace oscar_lab
{

struct Option {
  const char* name; // with its dashes
  bool has_value;
  bool repeats = false; // may be given more than once
};

class Arguments
{
public:
  /// Throws Usage_Failure for an unknown or repeated option, a missing value or more than max_operands
  /// operands.
  Arguments(int argc, char* const* argv, const std::vector<Option>& known, std::size_t max_operands);

  bool has(const std::string& name) const { return values_.count(name) != 0; }
  /// The value, or fallback when the option was not given.
  std::string value(const std::string& name, const std::string& fallback = {}) const;
  /// Throws Usage_Failure when the option is missing or its value is empty.
  const std::string& required(const std::string& name) const;
  /// All values of an option that repeats, in the order given.
  std::vector<std::string> values(const std::string& name) const;
  const std::vector<std::string>& operands() const { return operands_; }
  /// Throws Usage_Failure unless exactly the allowed options (and no others) were given.
  void only(const std::set<std::string>& allowed, const std::string& situation) const;

private:
  std::map<std::string, std::vector<std::string>> values_; // never an empty list
  std::vector<std::string> operands_;
};

/// Prints what --help or an option for the version asks for; false when none was given. Throws Usage_Failure
/// when the version is asked for beside something else.
bool answers_question(const Arguments& arguments, const char* usage,
                      const std::vector<std::string>& version_options, const char* version);

} // namespace oscar_lab

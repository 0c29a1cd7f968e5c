#pragma once

#include <string>
#include <vector>

namespace fake_tool
{
struct Step {
  unsigned line = 0;
  std::vector<std::string> words; ///< with ${...} still in them; escapes are already characters
};

/// What the values in words are taken from.
struct Context {
  std::vector<std::string> args; ///< argv
  std::string script;            ///< path of the script file
};

/// Ends the program with status 120 after saying what is wrong with the step.
[[noreturn]] void bad_step(const Step& step, const std::string& why);

std::vector<Step> parse(const std::string& text);

/// The words of a step with their values put in.
std::vector<std::string> expand(const Step& step, const Context& context);

/// The condition in words[1...] of an `if` step.
bool holds(const Step& step, const Context& context);

long to_number(const Step& step, const std::string& text);
} // namespace fake_tool

#include "lab/common/arguments.h"

#include "lab/common/text.h"

#include <cstdio>
#include <cstring>

namespace oscar_lab
{

namespace
{

/// Finds the option that the word stands for. glued becomes true when the word holds the value too.
const Option* find_option(const std::string& word, const std::vector<Option>& known, std::string& value,
                          bool& glued)
{
  glued = false;
  for (const Option& option : known)
    if (word == option.name)
      return &option;
  for (const Option& option : known) {
    if (!option.has_value)
      continue;
    const std::string name = option.name;
    const bool is_long = starts_with(name, "--");
    const std::string prefix = is_long ? name + "=" : name;
    if (!starts_with(word, prefix))
      continue;
    value = word.substr(prefix.size());
    glued = true;
    return &option;
  }
  return nullptr;
}

} // namespace

Arguments::Arguments(int argc, char* const* argv, const std::vector<Option>& known, std::size_t max_operands)
{
  for (int i = 1; i < argc; ++i) {
    const std::string word = argv[i];
    const std::string place = "argument " + std::to_string(i);
    if (word.empty() || word[0] != '-' || word == "-") {
      if (operands_.size() >= max_operands)
        throw Usage_Failure(place + " is not understood");
      operands_.push_back(word);
      continue;
    }
    std::string value;
    bool glued = false;
    const Option* const option = find_option(word, known, value, glued);
    if (!option)
      throw Usage_Failure(place + " is not an option of this tool");
    if (option->has_value && !glued) {
      if (++i >= argc)
        throw Usage_Failure(std::string("option ") + option->name + " needs a value");
      value = argv[i];
    }
    std::vector<std::string>& values = values_[option->name];
    if (!values.empty() && !option->repeats)
      throw Usage_Failure(std::string("option ") + option->name + " is given twice");
    values.push_back(value);
  }
}

std::string Arguments::value(const std::string& name, const std::string& fallback) const
{
  const auto found = values_.find(name);
  return found == values_.end() ? fallback : found->second.front();
}

const std::string& Arguments::required(const std::string& name) const
{
  const auto found = values_.find(name);
  if (found == values_.end())
    throw Usage_Failure("option " + name + " is missing");
  if (found->second.front().empty())
    throw Usage_Failure("option " + name + " has an empty value");
  return found->second.front();
}

std::vector<std::string> Arguments::values(const std::string& name) const
{
  const auto found = values_.find(name);
  return found == values_.end() ? std::vector<std::string>() : found->second;
}

void Arguments::only(const std::set<std::string>& allowed, const std::string& situation) const
{
  for (const auto& entry : values_)
    if (allowed.count(entry.first) == 0)
      throw Usage_Failure("option " + entry.first + " cannot be used " + situation);
}

bool answers_question(const Arguments& arguments, const char* usage,
                      const std::vector<std::string>& version_options, const char* version)
{
  if (arguments.has("--help")) {
    std::fputs(usage, stdout);
    return true;
  }
  for (const std::string& option : version_options)
    if (arguments.has(option)) {
      arguments.only({version_options.begin(), version_options.end()}, "with " + version_options.front());
      std::puts(version);
      return true;
    }
  return false;
}

} // namespace oscar_lab

#include "script.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <regex>
#include <sys/file.h>
#include <unistd.h>

namespace fake_tool
{
namespace
{
/// Stands for a '$' that an escape protects from expansion.
const char protected_dollar = '\x01';

/// Reads the character behind a backslash at text[i]; i moves to the last character used.
char escape(const std::string& text, size_t& i)
{
  const char c = ++i < text.size() ? text[i] : '\\';
  switch (c) {
  case 'n':
    return '\n';
  case 't':
    return '\t';
  case 'r':
    return '\r';
  case '0':
    return '\0';
  case '$':
    return protected_dollar;
  case 'x': {
    const std::string digits = text.substr(i + 1, 2);
    i += digits.size();
    return static_cast<char>(::strtol(digits.c_str(), nullptr, 16));
  }
  default:
    return c;
  }
}

std::vector<std::string> split_words(const std::string& line)
{
  std::vector<std::string> words;
  std::string word;
  bool inside = false;
  bool quoted = false;
  for (size_t i = 0; i < line.size(); ++i) {
    const char c = line[i];
    if (c == '"') {
      quoted = !quoted;
      inside = true;
    } else if (c == ' ' && !quoted) {
      if (inside)
        words.push_back(word);
      word.clear();
      inside = false;
    } else {
      word += c == '\\' ? escape(line, i) : c;
      inside = true;
    }
  }
  if (inside)
    words.push_back(word);
  return words;
}

std::string run_number(const Context& context)
{
  static std::string number;
  if (!number.empty())
    return number;
  const int fd = ::open((context.script + ".runs").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  ::flock(fd, LOCK_EX);
  char text[32] = {};
  const ssize_t length = ::pread(fd, text, sizeof text - 1, 0);
  number = std::to_string((length > 0 ? ::atol(text) : 0) + 1);
  if (::pwrite(fd, number.data(), number.size(), 0) < 0)
    ::perror("fake_tool: cannot count the run");
  ::close(fd);
  return number;
}

std::string joined_arguments(const Context& context)
{
  std::string all;
  for (size_t i = 1; i < context.args.size(); ++i)
    all += (i > 1 ? " " : "") + context.args[i];
  return all;
}

std::string value_of(const Step& step, const std::string& name, const Context& context)
{
  const size_t colon = name.find(':');
  const std::string kind = name.substr(0, colon);
  const std::string key = colon == std::string::npos ? "" : name.substr(colon + 1);
  if (kind == "args")
    return joined_arguments(context);
  if (kind == "pid")
    return std::to_string(::getpid());
  if (kind == "run")
    return run_number(context);
  if (kind == "dir")
    return context.args[0].substr(0, context.args[0].rfind('/'));
  if (kind == "env")
    return ::getenv(key.c_str()) ? ::getenv(key.c_str()) : "";
  if (kind == "arg") {
    const size_t index = static_cast<size_t>(to_number(step, key));
    return index < context.args.size() ? context.args[index] : "";
  }
  if (kind == "option" || kind == "prefix") {
    for (size_t i = 1; i < context.args.size(); ++i) {
      if (kind == "prefix" && context.args[i].compare(0, key.size(), key) == 0)
        return context.args[i].substr(key.size());
      if (kind == "option" && context.args[i] == key && i + 1 < context.args.size())
        return context.args[i + 1];
    }
    return "";
  }
  bad_step(step, "unknown value ${" + name + "}");
}

std::string expand_word(const Step& step, const std::string& word, const Context& context)
{
  std::string text;
  for (size_t i = 0; i < word.size(); ++i) {
    const size_t end = word.compare(i, 2, "${") == 0 ? word.find('}', i) : std::string::npos;
    if (end == std::string::npos) {
      text += word[i] == protected_dollar ? '$' : word[i];
    } else {
      text += value_of(step, word.substr(i + 2, end - i - 2), context);
      i = end;
    }
  }
  return text;
}
} // namespace

void bad_step(const Step& step, const std::string& why)
{
  ::fprintf(stderr, "fake_tool: line %u: %s\n", step.line, why.c_str());
  ::_exit(120);
}

long to_number(const Step& step, const std::string& text)
{
  char* stop = nullptr;
  const long number = ::strtol(text.c_str(), &stop, 10);
  if (text.empty() || *stop)
    bad_step(step, "\"" + text + "\" is no number");
  return number;
}

std::vector<Step> parse(const std::string& text)
{
  std::vector<Step> steps;
  unsigned number = 0;
  for (size_t begin = 0; begin < text.size();) {
    size_t end = text.find('\n', begin);
    if (end == std::string::npos)
      end = text.size();
    Step step;
    step.line = ++number;
    const size_t first = text.find_first_not_of(' ', begin);
    if (first < end && text[first] != '#')
      step.words = split_words(text.substr(begin, end - begin));
    if (!step.words.empty())
      steps.push_back(step);
    begin = end + 1;
  }
  return steps;
}

std::vector<std::string> expand(const Step& step, const Context& context)
{
  std::vector<std::string> words;
  for (const std::string& word : step.words)
    words.push_back(expand_word(step, word, context));
  return words;
}

bool holds(const Step& step, const Context& context)
{
  std::vector<std::string> words = expand(step, context);
  words.erase(words.begin());
  const bool turned = !words.empty() && words[0] == "not";
  if (turned)
    words.erase(words.begin());
  words.resize(4);
  const std::string& kind = words[0];
  bool result = false;
  if (kind == "args_contain")
    result = joined_arguments(context).find(words[1]) != std::string::npos;
  else if (kind == "args_match")
    result = std::regex_search(joined_arguments(context), std::regex(words[1]));
  else if (kind == "env")
    result = ::getenv(words[1].c_str()) && words[2] == ::getenv(words[1].c_str());
  else if (kind == "exists")
    result = ::access(words[1].c_str(), F_OK) == 0;
  else if (kind == "run")
    result = run_number(context) == words[1];
  else if (kind == "same")
    result = words[1] == words[2];
  else
    bad_step(step, "unknown condition " + kind);
  return result != turned;
}
} // namespace fake_tool

#include "cli/command_output.h"

#include "base/ignore_result.h"
#include "json/json_util.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace kestrel
{
namespace
{
bool lost = false;
} // namespace

bool write_result(const std::string& text)
{
  const bool written = std::fwrite(text.data(), 1, text.size(), stdout) == text.size();
  if (std::fflush(stdout) == 0 && written)
    return true;
  if (errno == EPIPE)
    return false;
  if (!lost)
    std::fprintf(stderr, "kestrel: the result cannot be written to the standard output: %s\n",
                 std::strerror(errno));
  lost = true;
  return false;
}

bool result_lost()
{
  return lost;
}

void Command_Output::result(const json_spirit::Object& json, const std::string& text)
{
  ignore_result(write_result(line_.json ? write_json_pretty(json) : text),
                "the command has done its work; result_lost() makes it a failure at its end");
}

void Command_Output::note(const std::string& text)
{
  if (!line_.quiet && !line_.json)
    std::fprintf(stderr, "%s\n", text.c_str());
}

int Command_Output::fail(const std::string& what, int code, const std::string& log_path)
{
  last_code_ = code;
  if (line_.json) {
    json_spirit::Object error;
    set_value(error, "message", what);
    set_value(error, "exit_code", code);
    if (!log_path.empty())
      set_value(error, "log", log_path);
    json_spirit::Object object;
    set_value(object, "error", error);
    result(object, "");
  }
  std::fprintf(stderr, "kestrel: %s%s\n", what.c_str(),
               log_path.empty() ? "" : (" (log: " + log_path + ")").c_str());
  return code;
}
} // namespace kestrel

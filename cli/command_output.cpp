#include "cli/command_output.h"

#include "json/json_util.h"

#include <cstdio>

namespace kestrel
{
void Command_Output::result(const json_spirit::Object& json, const std::string& text)
{
  const std::string shown = line_.json ? write_json_pretty(json) : text;
  std::fwrite(shown.data(), 1, shown.size(), stdout);
  std::fflush(stdout);
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

#pragma once

#include "process/text_process_handler.h"
#include "support/fake_tool.h"

#include <cerrno>
#include <string>
#include <vector>

/// What the tests of child processes share.
namespace tool_runs
{
typedef std::vector<std::string> Lines;

/// Keeps every line; stops its stdout after stop_after lines when that is not 0.
class Collecting_Handler : public Text_Process_Handler
{
public:
  explicit Collecting_Handler(unsigned int max_line = 0, int eof_seconds = 60)
      : Text_Process_Handler(max_line, eof_seconds)
  {
  }
  int handle_stdout_line(const char* line, unsigned int length) override
  {
    terminated_by_nul = terminated_by_nul && line[length] == '\0';
    out.emplace_back(line, length);
    return stop_after != 0 && out.size() >= stop_after ? -1 : 0;
  }
  int handle_stderr_line(const char* line, unsigned int length) override
  {
    err.emplace_back(line, length);
    return 0;
  }
  int handle_stdout_segment(const char* data, unsigned int length) override
  {
    segments.append(data, length);
    return 0;
  }
  int handle_stdout_close() override { return ++out_closed; }
  int handle_stderr_close() override { return ++err_closed; }

  Lines out;
  Lines err;
  std::string segments;
  int out_closed = 0;
  int err_closed = 0;
  size_t stop_after = 0;
  bool terminated_by_nul = true;
};

/// Options as the product's callers make them.
class Tool_Options : public ACE_Process_Options
{
public:
  explicit Tool_Options(const std::string& command) : ACE_Process_Options(true, 1024, 16384, 512, 128)
  {
    handle_inheritance(0);
    setgroup(0);
    command_line("%s", command.c_str());
  }
};

inline int run(Text_Process_Handler& handler, const std::string& command)
{
  Tool_Options options(command);
  return handler.call(6, options);
}

inline const std::shared_ptr<ACE_Log_Msg_Callback> no_callback;
} // namespace tool_runs

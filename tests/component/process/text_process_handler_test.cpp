#include "process/text_process_handler.h"

#include "support/fake_tool.h"
#include "support/log_capture.h"

#include <gtest/gtest.h>

#include <vector>

namespace
{
using kestrel_test::make_fake_tool;
using kestrel_test::Temp_Dir;

class Collecting_Handler : public Text_Process_Handler
{
public:
  Collecting_Handler() : Text_Process_Handler(0, 60) {}
  int handle_stdout_line(const char* line, unsigned int length) override
  {
    out.emplace_back(line, length);
    return stop_after != 0 && out.size() >= stop_after ? -1 : 0;
  }
  int handle_stderr_line(const char* line, unsigned int length) override
  {
    err.emplace_back(line, length);
    return 0;
  }
  std::vector<std::string> out;
  std::vector<std::string> err;
  size_t stop_after = 0;
};

int run(Collecting_Handler& handler, const std::string& command)
{
  ACE_Process_Options options(true, 1024, 16384, 512, 128);
  options.handle_inheritance(0);
  options.setgroup(0);
  options.command_line("%s", command.c_str());
  return handler.call(6, options);
}
} // namespace

TEST(Text_Process_Handler, delivers_lines_of_both_streams)
{
  Temp_Dir dir;
  Collecting_Handler handler;
  EXPECT_EQ(3, run(handler, make_fake_tool(dir, "tool", "out one\nout \"\"\nerr bad\nout_raw last\nexit 3\n")));
  EXPECT_EQ((std::vector<std::string>{"one", "", "last"}), handler.out);
  EXPECT_EQ((std::vector<std::string>{"bad"}), handler.err);
}

TEST(Text_Process_Handler, says_that_a_missing_program_cannot_be_started)
{
  Collecting_Handler handler;
  EXPECT_EQ(-1, run(handler, "/nonexistent/tool"));
  EXPECT_EQ(ENOENT, errno);
}

#include "hostile_text.h"
#include "oscar/oscar_cmd_handler.h"
#include "support/log_capture.h"

#include <gtest/gtest.h>

using kestrel_test::Log_Capture;

namespace
{
int feed_stderr(Execute_Cmd_Line_Handler& handler, const std::string& line)
{
  return handler.handle_stderr_line(line.c_str(), static_cast<unsigned>(line.size()));
}

int feed_stdout(Execute_Cmd_Line_Handler& handler, const std::string& line)
{
  return handler.handle_stdout_line(line.c_str(), static_cast<unsigned>(line.size()));
}
} // namespace

TEST(Execute_Cmd_Line_Handler, keeps_the_trimmed_error_text_of_isql)
{
  Log_Capture log;
  std::string error;
  Execute_Cmd_Line_Handler handler(&error, false);
  EXPECT_EQ(feed_stderr(handler, "isql: ERROR, password authentication failed  "), 0);
  EXPECT_EQ(error, "Error, password authentication failed.");
  log.expect_exactly(LM_ERROR, "Failed info: isql: ERROR, password authentication failed  \n");
}

TEST(Execute_Cmd_Line_Handler, finds_the_error_text_behind_other_words)
{
  Log_Capture log;
  std::string error;
  Execute_Cmd_Line_Handler handler(&error, false);
  feed_stderr(handler, "/opt/db/bin/isql: ERROR, \t no such database \r");
  EXPECT_EQ(error, "Error, no such database.");
  log.expect(LM_ERROR, "Failed info: /opt/db/bin/isql: ERROR, ");
}

TEST(Execute_Cmd_Line_Handler, last_error_line_wins_and_other_lines_change_nothing)
{
  Log_Capture log;
  std::string error = "before";
  Execute_Cmd_Line_Handler handler(&error, false);
  feed_stderr(handler, "some warning");
  EXPECT_EQ(error, "before");
  feed_stderr(handler, "isql: ERROR, one");
  feed_stderr(handler, "isql: ERROR, two");
  feed_stderr(handler, "isql: error, three");
  EXPECT_EQ(error, "Error, two.");
  log.expect_exactly(LM_ERROR, "Failed info: some warning\n");
  log.expect_exactly(LM_ERROR, "Failed info: isql: ERROR, one\n");
  log.expect_exactly(LM_ERROR, "Failed info: isql: ERROR, two\n");
  log.expect_exactly(LM_ERROR, "Failed info: isql: error, three\n");
}

TEST(Execute_Cmd_Line_Handler, uses_exactly_the_given_length)
{
  Log_Capture log;
  std::string error;
  Execute_Cmd_Line_Handler handler(&error, false);
  const char text[] = "isql: ERROR, abcdef";
  EXPECT_EQ(handler.handle_stderr_line(text, 16), 0);
  EXPECT_EQ(error, "Error, abc.");
  log.expect_exactly(LM_ERROR, "Failed info: isql: ERROR, abc\n");
}

TEST(Execute_Cmd_Line_Handler, an_empty_error_text_is_still_an_error)
{
  Log_Capture log;
  std::string error;
  Execute_Cmd_Line_Handler handler(&error, false);
  feed_stderr(handler, "isql: ERROR, ");
  EXPECT_EQ(error, "Error, .");
  log.expect_exactly(LM_ERROR, "Failed info: isql: ERROR, \n");
}

TEST(Execute_Cmd_Line_Handler, does_not_touch_the_error_text_while_it_echoes)
{
  Log_Capture log;
  std::string error = "untouched";
  Execute_Cmd_Line_Handler handler(&error, true);
  for (int line = 0; line < 3; ++line)
    EXPECT_EQ(feed_stderr(handler, "isql: ERROR, bad"), 0);
  EXPECT_EQ(error, "untouched");
  for (int line = 0; line < 3; ++line)
    log.expect(LM_ERROR, "isql: ERROR, bad");
  EXPECT_EQ(log.count("Failed info"), 0u);
}

TEST(Execute_Cmd_Line_Handler, echoes_standard_output_only_when_asked)
{
  Log_Capture log;
  Execute_Cmd_Line_Handler silent(nullptr, false);
  EXPECT_EQ(feed_stdout(silent, "table exported"), 0);
  EXPECT_EQ(log.lines().size(), 0u);
  Execute_Cmd_Line_Handler echoing(nullptr, true);
  EXPECT_EQ(feed_stdout(echoing, "table exported"), 0);
  EXPECT_EQ(feed_stdout(echoing, "100 %s %d %n done"), 0);
  log.expect(LM_INFO, "table exported");
  log.expect(LM_INFO, "100 %s %d %n done");
}

TEST(Execute_Cmd_Line_Handler, ignores_standard_error_when_nobody_wants_it)
{
  Log_Capture log;
  Execute_Cmd_Line_Handler handler(nullptr, false);
  EXPECT_EQ(feed_stderr(handler, "isql: ERROR, bad"), 0);
  EXPECT_EQ(feed_stderr(handler, ""), 0);
  EXPECT_EQ(log.lines().size(), 0u);
}

TEST(Execute_Cmd_Line_Handler, survives_hostile_text)
{
  Log_Capture log;
  log.allow(LM_ERROR, "Failed info: ");
  std::string error = "before";
  Execute_Cmd_Line_Handler handler(&error, false);
  EXPECT_EQ(feed_stderr(handler, kestrel_test::many_blanks()), 0);
  EXPECT_EQ(feed_stderr(handler, std::string("a\0b isql: ERROR", 15)), 0);
  EXPECT_EQ(feed_stderr(handler, ""), 0);
  EXPECT_EQ(error, "before");
  EXPECT_EQ(feed_stderr(handler, "isql: ERROR, " + kestrel_test::many_blanks()), 0);
  EXPECT_EQ(error, "Error, .");
  EXPECT_EQ(feed_stderr(handler, kestrel_test::repeated("isql: ERROR, ") + "\xff\xfe%s"), 0);
  EXPECT_EQ(error, "Error, \xff\xfe%s.");
}

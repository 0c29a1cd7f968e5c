#include "hostile_text.h"
#include "oscar/oscar_cmd_handler.h"

#include <gtest/gtest.h>

using kestrel_test::many_blanks;
using kestrel_test::repeated;

namespace
{
template <class Handler> int feed(Handler& handler, const std::string& line)
{
  return handler.handle_stdout_line(line.c_str(), static_cast<unsigned>(line.size()));
}
} // namespace

TEST(Version_Line_Handler, finds_the_build_or_the_whole_text)
{
  std::string build;
  Version_Line_Handler short_form(build, false);
  EXPECT_EQ(feed(short_form, " OSCAR 9.1 (build  5.7.2 ) for Linux x86"), 0);
  EXPECT_EQ(build, "5.7.2 ");
  std::string whole;
  Version_Line_Handler full_form(whole, true);
  EXPECT_EQ(feed(full_form, " OSCAR 9.1 (build  5.7.2 ) for Linux x86"), 0);
  EXPECT_EQ(whole, " OSCAR 9.1 (build  5.7.2 ) for Linux x86");
}

TEST(Version_Line_Handler, last_matching_line_wins)
{
  std::string version = "before";
  Version_Line_Handler handler(version, false);
  EXPECT_EQ(feed(handler, "(build ) for"), 0);
  EXPECT_EQ(feed(handler, "no version here"), 0);
  EXPECT_EQ(version, "");
  EXPECT_EQ(feed(handler, "(build 1) for x"), 0);
  EXPECT_EQ(feed(handler, "(build 2) for x"), 0);
  EXPECT_EQ(feed(handler, "(build 3)"), 0);
  EXPECT_EQ(feed(handler, ""), 0);
  EXPECT_EQ(version, "2");
}

TEST(Version_Line_Handler, survives_hostile_text)
{
  std::string version = "before";
  Version_Line_Handler handler(version, false);
  EXPECT_EQ(feed(handler, many_blanks()), 0);
  EXPECT_EQ(feed(handler, "(build" + many_blanks()), 0);
  EXPECT_EQ(feed(handler, repeated("(build ")), 0);
  EXPECT_EQ(version, "before");
}

TEST(Osrimp_Version_Line_Handler, takes_the_text_behind_the_last_blank_of_the_first_line)
{
  std::string version;
  Osrimp_Version_Line_Handler handler(version);
  EXPECT_EQ(feed(handler, "Copyright"), 0);
  EXPECT_EQ(feed(handler, "tool osrimp (OSCAR) version \t 5.7.2"), -1);
  EXPECT_EQ(version, "5.7.2");
}

TEST(Osrimp_Version_Line_Handler, is_empty_when_the_line_ends_in_a_blank)
{
  std::string version = "before";
  Osrimp_Version_Line_Handler handler(version);
  EXPECT_EQ(feed(handler, "osrimp 5.7.2 "), -1);
  EXPECT_EQ(version, "");
}

TEST(Osrimp_Version_Line_Handler, needs_white_space_behind_the_name)
{
  std::string version = "before";
  Osrimp_Version_Line_Handler handler(version);
  EXPECT_EQ(feed(handler, "osrimp-5.7.2"), 0);
  EXPECT_EQ(feed(handler, "OSRIMP 5.7.2"), 0);
  EXPECT_EQ(feed(handler, ""), 0);
  EXPECT_EQ(version, "before");
}

TEST(Osrimp_Version_Line_Handler, survives_hostile_text)
{
  std::string version = "before";
  Osrimp_Version_Line_Handler handler(version);
  EXPECT_EQ(feed(handler, repeated("osrimp")), 0);
  EXPECT_EQ(feed(handler, many_blanks()), 0);
  EXPECT_EQ(version, "before");
  EXPECT_EQ(feed(handler, "osrimp" + many_blanks()), -1);
  EXPECT_EQ(version, "");
}

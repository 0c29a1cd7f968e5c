#include "cli/text_format.h"

#include "support/scoped_env.h"

#include <gtest/gtest.h>

#include <ctime>

using namespace kestrel;

TEST(Text_Format, writes_bytes_with_a_binary_unit)
{
  EXPECT_EQ("0 B", format_bytes(0));
  EXPECT_EQ("1023 B", format_bytes(1023));
  EXPECT_EQ("1.0 KiB", format_bytes(1024));
  EXPECT_EQ("1.5 KiB", format_bytes(1536));
  EXPECT_EQ("1.0 MiB", format_bytes(1048575));
  EXPECT_EQ("203.4 MiB", format_bytes(213280358));
  EXPECT_EQ("16.0 EiB", format_bytes(UINT64_MAX));
}

TEST(Text_Format, writes_durations_in_the_two_largest_units)
{
  EXPECT_EQ("0 s", format_duration(-5));
  EXPECT_EQ("59 s", format_duration(59));
  EXPECT_EQ("1 min 00 s", format_duration(60));
  EXPECT_EQ("59 min 59 s", format_duration(3599));
  EXPECT_EQ("2 h 05 min", format_duration(7530));
}

TEST(Text_Format, writes_times_in_local_time)
{
  const kestrel_test::Scoped_Env zone("TZ", "CET-1");
  ::tzset();
  EXPECT_EQ("2024-01-05 02:30:00", format_time(1704418200));
  EXPECT_EQ("2024-01-05T02:30:00+01:00", format_time_rfc3339(1704418200));
  EXPECT_EQ("-", format_time(0));
  EXPECT_EQ("", format_time_rfc3339(0));
}

TEST(Text_Format, writes_no_ratio_without_both_sizes)
{
  EXPECT_EQ("4.2", format_ratio(42, 10));
  EXPECT_EQ("-", format_ratio(0, 10));
  EXPECT_EQ("-", format_ratio(42, 0));
}

TEST(Text_Format, lines_columns_up_by_code_points_and_leaves_no_blanks_at_line_ends)
{
  EXPECT_EQ("NAME  SIZE\n"
            "é        7\n"
            "long    12\n"
            "x\n",
            format_table({{"NAME", "SIZE"}, {"é", "7"}, {"long", "12"}, {"x", ""}}, {1}));
}

TEST(Text_Format, accepts_rows_of_different_lengths)
{
  EXPECT_EQ("a\nb  c\n", format_table({{"a"}, {"b", "c"}}));
  EXPECT_EQ("", format_table({}));
}

TEST(Text_Format, lines_of_their_own_do_not_count_for_the_columns)
{
  EXPECT_EQ(
      "A  B\n"
      "a line much longer than any column\n"
      "and another\n"
      "x  1\n"
      "the end of it\n"
      "y  2\n"
      "after all\n",
      format_table({{"A", "B"}, {"x", "1"}, {"y", "2"}}, {},
                   {{1, "a line much longer than any column"}, {1, "and another"}, {2, "the end of it"},
                    {3, "after all"}}));
}

TEST(Text_Format, wraps_text_at_blanks)
{
  EXPECT_EQ("", format_wrapped("", "  ", 20));
  EXPECT_EQ("  one two\n", format_wrapped(" one\n two ", "  ", 20));
  EXPECT_EQ("  one\n  two\n", format_wrapped("one two", "  ", 8));
  EXPECT_EQ("one two\n", format_wrapped("one two", "", 7));
  EXPECT_EQ("a\nvery-long-word\nb\n", format_wrapped("a very-long-word b", "", 5));
  EXPECT_EQ("\xC3\xA4\xC3\xA4 b\n", format_wrapped("\xC3\xA4\xC3\xA4 b", "", 4)) << "columns, not bytes";
}

#include "oscar/oscar_cmd_handler.h"
#include "support/fault_process_api.h"
#include "support/log_capture.h"

#include <boost/algorithm/string.hpp>
#include <boost/regex.hpp>
#include <gtest/gtest.h>

#include <cerrno>
#include <random>

using kestrel_test::Fault_Process_Api;
using kestrel_test::Log_Capture;

namespace
{
typedef Oscar_Query_Handler::Result_type Rows;
typedef std::vector<std::string> Row;

struct Parser {
  std::ostringstream output;
  Rows rows;
  Oscar_Query_Handler::Isql_Query_Line_Handler handler{output, &rows};

  int feed(const std::string& line)
  {
    return handler.handle_stdout_line(line.c_str(), static_cast<unsigned>(line.size()));
  }
  void feed_headers()
  {
    EXPECT_EQ(feed(" a | b "), 0);
    EXPECT_EQ(feed("---+---"), 0);
  }
};

// The rows that one line behind the headers gives.
Rows rows_of(const std::string& line)
{
  Parser parser;
  parser.feed_headers();
  EXPECT_EQ(parser.feed(line), 0);
  return parser.rows;
}

// The splitting rule as the libraries state it, to compare with.
Row split_by_library(std::string line)
{
  boost::trim(line);
  Row cells;
  boost::split(cells, line, boost::is_any_of("|"), boost::token_compress_on);
  return cells;
}
} // namespace

TEST(Isql_Query_Line_Handler, a_table_without_rows_gives_no_rows)
{
  Parser parser;
  parser.feed_headers();
  EXPECT_EQ(parser.feed("(0 rows)"), 0);
  EXPECT_TRUE(parser.rows.empty());
  EXPECT_EQ(parser.output.str(), " a | b \n---+---\n(0 rows)\n");
}

TEST(Isql_Query_Line_Handler, skips_two_lines_whatever_they_hold)
{
  Parser parser;
  EXPECT_EQ(parser.feed("x | y"), 0);
  EXPECT_EQ(parser.feed("(2 rows)"), 0);
  EXPECT_EQ(parser.feed("z"), 0);
  EXPECT_EQ(parser.rows, (Rows{{"z"}}));
}

TEST(Isql_Query_Line_Handler, recognises_the_footer_only_flush_left_and_whole)
{
  EXPECT_TRUE(rows_of("(1 row)").empty());
  EXPECT_TRUE(rows_of("(2 rows)").empty());
  EXPECT_TRUE(rows_of("(123456789012345678901234567890 rows)").empty());
  EXPECT_EQ(rows_of("  (3 rows)"), (Rows{{"(3 rows)"}}));
  EXPECT_EQ(rows_of("(3 rows) "), (Rows{{"(3 rows)"}}));
  EXPECT_EQ(rows_of("(3 rows)\r"), (Rows{{"(3 rows)"}}));
  EXPECT_EQ(rows_of("( rows)"), (Rows{{"( rows)"}}));
  EXPECT_EQ(rows_of("(3 rowss)"), (Rows{{"(3 rowss)"}}));
  EXPECT_EQ(rows_of("(3  rows)"), (Rows{{"(3  rows)"}}));
  EXPECT_EQ(rows_of("(-3 rows)"), (Rows{{"(-3 rows)"}}));
  EXPECT_EQ(rows_of("(null)\\ROOT"), (Rows{{"(null)\\ROOT"}}));
}

TEST(Isql_Query_Line_Handler, cells_keep_the_blanks_beside_the_separators)
{
  EXPECT_EQ(rows_of(" 1 | 10.0.0.5 | master "), (Rows{{"1 ", " 10.0.0.5 ", " master"}}));
  EXPECT_EQ(rows_of("x|  |z"), (Rows{{"x", "  ", "z"}}));
  EXPECT_EQ(rows_of(" single \t"), (Rows{{"single"}}));
}

TEST(Isql_Query_Line_Handler, adjoining_separators_count_as_one)
{
  EXPECT_EQ(rows_of("x||z"), (Rows{{"x", "z"}}));
  EXPECT_EQ(rows_of("x|||||z"), (Rows{{"x", "z"}}));
  EXPECT_EQ(rows_of("|x|"), (Rows{{"", "x", ""}}));
  EXPECT_EQ(rows_of("||"), (Rows{{"", ""}}));
  EXPECT_EQ(rows_of("|"), (Rows{{"", ""}}));
}

TEST(Isql_Query_Line_Handler, blank_lines_are_skipped)
{
  EXPECT_TRUE(rows_of(" \t ").empty());
  EXPECT_TRUE(rows_of("\r").empty());
  EXPECT_TRUE(rows_of(std::string(200000, ' ')).empty());
}

TEST(Isql_Query_Line_Handler, an_empty_or_null_line_is_reported_and_ends_the_parsing)
{
  Log_Capture log;
  Parser parser;
  parser.feed_headers();
  EXPECT_EQ(parser.feed("kept"), 0);
  EXPECT_EQ(parser.feed(""), -1);
  log.expect(LM_EMERGENCY, ", line is NULL or \"\":\n");
  EXPECT_EQ(parser.handler.handle_stdout_line(nullptr, 5), -1);
  log.expect(LM_EMERGENCY, ", line is NULL or \"\":\n");
  EXPECT_EQ(parser.rows, (Rows{{"kept"}}));
}

TEST(Isql_Query_Line_Handler, takes_exactly_the_given_length_with_any_bytes)
{
  Parser parser;
  parser.feed_headers();
  EXPECT_EQ(parser.handler.handle_stdout_line("abc|def", 5), 0);
  EXPECT_EQ(parser.feed(std::string("a\0b|\xff\xfe", 6)), 0);
  EXPECT_EQ(parser.rows, (Rows{{"abc", "d"}, {std::string("a\0b", 3), "\xff\xfe"}}));
}

TEST(Isql_Query_Line_Handler, expects_headers_again_for_the_next_statement)
{
  Parser parser;
  parser.feed_headers();
  parser.feed("one");
  parser.handler.expect_headers();
  parser.feed_headers();
  parser.feed("two");
  EXPECT_EQ(parser.rows, (Rows{{"one"}, {"two"}}));
}

TEST(Isql_Query_Line_Handler, survives_hostile_text)
{
  EXPECT_EQ(rows_of(std::string(200000, '|')), (Rows{{"", ""}}));
  EXPECT_EQ(rows_of("(" + std::string(200000, '1')), (Rows{{"(" + std::string(200000, '1')}}));
  EXPECT_EQ(rows_of("(1" + std::string(200000, ' ') + "rows)").size(), 1u);
  EXPECT_EQ(rows_of("a" + std::string(200000, ' ') + "|b"), (Rows{{"a" + std::string(200000, ' '), "b"}}));
}

TEST(Isql_Query_Line_Handler, output_stops_growing_but_rows_do_not)
{
  Parser parser;
  parser.feed_headers();
  const std::string line(2u << 20, 'x');
  for (int i = 0; i < 10; ++i)
    EXPECT_EQ(parser.feed(line), 0);
  EXPECT_EQ(parser.rows.size(), 10u);
  const size_t collected = parser.output.str().size();
  EXPECT_GE(collected, Oscar_Query_Handler::Max_Output_Bytes);
  EXPECT_LE(collected, Oscar_Query_Handler::Max_Output_Bytes + line.size());
}

TEST(Isql_Query_Line_Handler, splits_random_lines_as_the_library_rule_says)
{
  std::mt19937 random(20240521);
  const std::string alphabet = "ab| \t|(1)\r\v";
  for (int round = 0; round < 5000; ++round) {
    std::string line;
    for (unsigned length = 1 + random() % 12; length > 0; --length)
      line += alphabet[random() % alphabet.size()];
    const bool blank = boost::trim_copy(line).empty();
    EXPECT_EQ(rows_of(line), blank ? Rows() : Rows{split_by_library(line)}) << "line: '" << line << "'";
  }
}

TEST(Oscar_Query_Handler, needs_all_four_texts_of_the_connection)
{
  const std::vector<Row> incomplete = {{"", "DB1", "u", "p"},
                                       {"/opt/db", "", "u", "p"},
                                       {"/opt/db", "DB1", "", "p"},
                                       {"/opt/db", "DB1", "u", ""}};
  for (const Row& texts : incomplete) {
    Log_Capture log;
    Fault_Process_Api api;
    log.allow(LM_EMERGENCY, "oscar_home is NULL or \"\"");
    Oscar_Query_Handler query(texts[0], texts[1], texts[2], texts[3], 2003, "");
    EXPECT_FALSE(query.select("select 1"));
    log.expect_exactly(LM_ERROR, "Lack of connection parameter.\n");
    EXPECT_EQ(api.requests().size(), 0u);
  }
  Log_Capture log;
  Oscar_Query_Handler unset;
  EXPECT_FALSE(unset.select(std::string("select 1")));
  log.expect_exactly(LM_ERROR, "Lack of connection parameter.\n");
}

TEST(Oscar_Query_Handler, passes_the_connection_and_the_statement_to_isql)
{
  Log_Capture log;
  Fault_Process_Api api;
  api.fail_all(ENOENT);
  Oscar_Query_Handler query("/opt/db", "DB1", "sysdba", "secret", 65535, "10.0.0.5");
  EXPECT_FALSE(query.select("select 'a b' from t where x like '100%%'"));
  const std::vector<kestrel::Spawn_Request> requests = api.requests();
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_EQ(requests[0].argv, (Row{"/opt/db/bin/isql", "-Usysdba/secret", "-h10.0.0.5", "-dDB1", "-p65535",
                                   "-c", "select 'a b' from t where x like '100%%'"}));
  EXPECT_EQ(log.lines().size(), 0u) << "the command of a query is never logged";
}

TEST(Oscar_Query_Handler, reset_replaces_all_but_the_host)
{
  Log_Capture log;
  Fault_Process_Api api;
  api.fail_all(ENOENT);
  Oscar_Query_Handler query("/opt/a", "A", "ua", "pa", 1, "host");
  EXPECT_TRUE(query.reset("/opt/b", "B", "ub", "pb", 2));
  EXPECT_FALSE(query.select("q"));
  ASSERT_EQ(api.requests().size(), 1u);
  EXPECT_EQ(api.requests()[0].argv, (Row{"/opt/b/bin/isql", "-Uub/pb", "-hhost", "-dB", "-p2", "-c", "q"}));
  EXPECT_FALSE(query.reset("", "B", "ub", "pb", 2));
  log.expect(LM_EMERGENCY, "oscar_home is NULL or \"\":\n");
}

TEST(Oscar_Query_Handler, a_long_statement_reaches_isql_cut)
{
  Fault_Process_Api api;
  api.fail_all(ENOENT);
  Oscar_Query_Handler query("/opt/db", "DB1", "u", "p", 2003, "h");
  EXPECT_FALSE(query.select(std::string(5000, 's')));
  ASSERT_EQ(api.requests().size(), 1u);
  const Row argv = api.requests()[0].argv;
  ASSERT_EQ(argv.size(), 7u);
  const std::string before = "/opt/db/bin/isql -Uu/p -hh -dDB1 -p2003 -c ";
  EXPECT_EQ(argv[6], "\"" + std::string(1023 - before.size() - 1, 's'));
}

#include "oscar/oscar_cmd_handler.h"
#include "oscar_home.h"
#include "support/log_capture.h"

#include <gtest/gtest.h>

using namespace kestrel_test;

namespace
{
typedef Oscar_Query_Handler::Result_type Rows;
typedef std::vector<std::string> Lines;

struct Query : Oscar_Query_Handler {
  explicit Query(const Oscar_Home& home)
      : Oscar_Query_Handler(home.path(), "DB1", "sysdba", "secret", 2010, "localhost")
  {
  }
};
} // namespace

TEST(Isql_Query, gives_the_rows_of_the_table)
{
  const Oscar_Home home;
  home.isql_prints({" A | B ", "---+---", " 1 | x ", "2||y", "3|  |z", "(3 rows)"});
  Query query(home);
  EXPECT_TRUE(query.select("select A,B from T"));
  EXPECT_EQ(query.result(), (Rows{{"1 ", " x"}, {"2", "y"}, {"3", "  ", "z"}}));
  EXPECT_EQ(query.output(), " A | B \n---+---\n 1 | x \n2||y\n3|  |z\n(3 rows)\n");
}

TEST(Isql_Query, a_table_without_rows_gives_no_rows)
{
  const Oscar_Home home;
  home.isql_answers({});
  Query query(home);
  EXPECT_TRUE(query.select("select A from T"));
  EXPECT_TRUE(query.result().empty());
}

TEST(Isql_Query, isql_receives_the_connection_and_the_statement)
{
  Log_Capture log;
  const Oscar_Home home;
  home.tool("isql", "dump_args " + home / "args" + "\ndump_env " + home / "env");
  Query query(home);
  EXPECT_TRUE(query.select(std::string("select 'a  b' from t where x='100%'")));
  EXPECT_EQ(lines_of(home / "args"), (Lines{home / "bin/isql", "-Usysdba/secret", "-hlocalhost", "-dDB1",
                                            "-p2010", "-c", "select 'a  b' from t where x='100%'", "--"}));
  EXPECT_EQ(value_of(lines_of(home / "env"), "SZ_OSCAR_HOME"), home.path());
  EXPECT_EQ(log.lines().size(), 0u) << "the command of a query is never logged";
}

TEST(Isql_Query, a_second_statement_replaces_the_rows_and_adds_to_the_output)
{
  const Oscar_Home home;
  home.tool("isql", "if args_contain one\nout A\nout -\nout first\nelse\nout B\nout -\nout second\nend");
  Query query(home);
  EXPECT_TRUE(query.select("one"));
  EXPECT_EQ(query.result(), (Rows{{"first"}}));
  EXPECT_TRUE(query.select("two"));
  EXPECT_EQ(query.result(), (Rows{{"second"}}));
  EXPECT_EQ(query.output(), "A\n-\nfirst\nB\n-\nsecond\n");
}

TEST(Isql_Query, a_failing_isql_keeps_what_it_printed)
{
  Log_Capture log;
  const Oscar_Home home;
  home.tool("isql", "out A\nout -\nout row\nerr \"isql: ERROR, secret\"\nexit 1");
  Query query(home);
  EXPECT_FALSE(query.select("q"));
  EXPECT_EQ(query.result(), (Rows{{"row"}}));
  EXPECT_EQ(query.output(), "A\n-\nrow\n");
  EXPECT_EQ(log.lines().size(), 0u);
}

TEST(Isql_Query, a_lost_connection_value_keeps_the_rows)
{
  Log_Capture log;
  const Oscar_Home home;
  home.isql_answers({"row"});
  Query query(home);
  EXPECT_TRUE(query.select("q"));
  EXPECT_TRUE(query.reset(home.path(), "DB1", "sysdba", "", 2010));
  EXPECT_FALSE(query.select("q"));
  EXPECT_EQ(query.result(), (Rows{{"row"}}));
  log.expect_exactly(LM_ERROR, "Lack of connection parameter.\n");
}

TEST(Isql_Query, a_missing_or_killed_isql_fails_the_statement)
{
  const Oscar_Home home;
  Query query(home);
  EXPECT_FALSE(query.select("q"));
  EXPECT_EQ(query.output(), "");
  home.tool("isql", "out A\nout -\nout row\ndie KILL");
  EXPECT_FALSE(query.select("q"));
  home.isql_answers({"row"});
  EXPECT_TRUE(query.select("q"));
  EXPECT_EQ(query.result(), (Rows{{"row"}}));
}

TEST(Isql_Query, an_empty_line_ends_the_parsing_but_not_the_statement)
{
  Log_Capture log;
  const Oscar_Home home;
  home.tool("isql", "out A\nout -\nout first\nout \"\"\nout second\nout_lines 50000 more");
  Query query(home);
  EXPECT_TRUE(query.select("q"));
  EXPECT_EQ(query.result(), (Rows{{"first"}}));
  log.expect(LM_EMERGENCY, ", line is NULL or \"\":\n");
}

TEST(Isql_Query, a_last_line_without_an_end_is_a_row)
{
  const Oscar_Home home;
  home.tool("isql", "out A\nout -\nout first\nout_raw last");
  Query query(home);
  EXPECT_TRUE(query.select("q"));
  EXPECT_EQ(query.result(), (Rows{{"first"}, {"last"}}));
}

TEST(Isql_Query, a_long_statement_is_cut_for_isql)
{
  const Oscar_Home home;
  home.tool("isql", "dump_args " + home / "args");
  Query query(home);
  EXPECT_TRUE(query.select(std::string(2000, 's')));
  const Lines args = lines_of(home / "args");
  ASSERT_EQ(args.size(), 8u);
  const std::string before = home / "bin/isql" + " -Usysdba/secret -hlocalhost -dDB1 -p2010 -c ";
  EXPECT_EQ(args[6], "\"" + std::string(1023 - before.size() - 1, 's'));
}

TEST(Isql_Query, many_rows_arrive_in_order)
{
  const Oscar_Home home;
  home.tool("isql", "out A\nout -\nout_lines 100000 \" {n} | x \"\nout \"(100000 rows)\"");
  Query query(home);
  EXPECT_TRUE(query.select("q"));
  ASSERT_EQ(query.result().size(), 100000u);
  EXPECT_EQ(query.result()[99999], (std::vector<std::string>{"99999 ", " x"}));
}

TEST(Isql_Query, binary_output_does_no_harm)
{
  const Oscar_Home home;
  home.tool(
      "isql",
      "out A\nout -\nout_raw \"a\\0b\\xff|\\x80\\n\"\nout_bytes 300000 \" \"\nout_raw \"\\n\"\nout end");
  Query query(home);
  EXPECT_TRUE(query.select("q"));
  EXPECT_EQ(query.result(), (Rows{{std::string("a\0b\xff", 4), "\x80"}, {"end"}}));
}

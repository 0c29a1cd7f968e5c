#include "oscar/oscar_cmd_handler.h"
#include "oscar_home.h"
#include "support/log_capture.h"

#include <gtest/gtest.h>

using namespace kestrel_test;

namespace
{
typedef std::vector<std::string> Names;

bool log_mode(const Oscar_Home& home, bool& archivelog)
{
  return get_log_mode(home.path(), "DB1", "sysdba", "secret", 2010, archivelog);
}

Names schemas_of(const Oscar_Home& home)
{
  Names schemas;
  EXPECT_TRUE(get_oscar_schemas(home.path(), "DB1", "sysdba", "secret", 2010, schemas));
  return schemas;
}

bool nodes_of(const Oscar_Home& home, std::vector<Oscar_Node_Info>& nodes)
{
  return get_cluster_nodes_info(home.path(), "DB1", "sysdba", "secret", 2010, "10.0.0.5", nodes);
}

// Runs the query on one bad row between two good ones and checks that only the good ones come out.
void expect_bad_node(const std::string& row, ACE_Log_Priority priority, const std::string& message)
{
  Log_Capture log;
  const Oscar_Home home;
  home.isql_answers({"1|a|master", row, "3|c|slave"});
  std::vector<Oscar_Node_Info> nodes;
  EXPECT_TRUE(nodes_of(home, nodes));
  ASSERT_EQ(nodes.size(), 2u);
  EXPECT_EQ(nodes[0].node_id, 1);
  EXPECT_EQ(nodes[1].node_id, 3);
  log.expect_exactly(priority, message);
}
} // namespace

TEST(Version_Probe, isql_names_its_build)
{
  const Oscar_Home home;
  home.tool("isql", "if args_match \"^--version$\"\nout \"isql (OSCAR) 9.1 (build 5.7.2) for Linux\"\nend");
  std::string version;
  EXPECT_TRUE(get_isql_version(home.path(), version, false));
  EXPECT_EQ(version, "5.7.2");
  EXPECT_TRUE(get_isql_version(home.path(), version, true));
  EXPECT_EQ(version, "isql (OSCAR) 9.1 (build 5.7.2) for Linux");
}

TEST(Version_Probe, isql_without_a_version_line_keeps_the_text)
{
  const Oscar_Home home;
  home.tool("isql", "out nothing\nerr \"(build 1) for x\"");
  std::string version = "before";
  EXPECT_TRUE(get_isql_version(home.path(), version, false));
  EXPECT_EQ(version, "before");
}

TEST(Version_Probe, a_failing_isql_fails_it)
{
  Log_Capture log;
  const Oscar_Home home;
  std::string version = "before";
  EXPECT_FALSE(get_isql_version(home.path(), version, false));
  home.tool("isql", "out \"(build 7) for x\"\nexit 1");
  EXPECT_FALSE(get_isql_version(home.path(), version, false));
  EXPECT_EQ(version, "7") << "left as the output gave it";
  EXPECT_EQ(log.lines().size(), 0u);
}

TEST(Version_Probe, the_server_is_asked_without_a_login)
{
  const Oscar_Home home;
  home.tool("isql",
            "dump_args " + home / "args" +
                "\nout version\nout -------\nout \" OSCAR 9.1 (build 5.7.2) for Linux\"\nout \"(1 row)\"");
  std::string version;
  EXPECT_TRUE(get_version(home.path(), 2010, "DB1", version, false));
  EXPECT_EQ(version, "5.7.2");
  EXPECT_EQ(lines_of(home / "args"),
            (Names{home / "bin/isql", "-p", "2010", "-d", "DB1", "-c", "select version()", "--"}));
}

TEST(Version_Probe, osrimp_is_read_to_its_first_version_line)
{
  const Oscar_Home home;
  home.tool(
      "osrimp",
      "out Copyright\nout \"osrimp (OSCAR) version 5.7.2\"\nout \"osrimp other 9\"\nout_lines 50000 more");
  std::string version;
  EXPECT_TRUE(get_osrimp_version(home.path(), version))
      << "the tool must not be killed for what it goes on to print";
  EXPECT_EQ(version, "5.7.2");
}

TEST(Version_Probe, osrimp_without_a_version_fails)
{
  const Oscar_Home home;
  std::string version;
  home.tool("osrimp", "out \"import tool 5.7.2\"");
  EXPECT_FALSE(get_osrimp_version(home.path(), version));
  home.tool("osrimp", "out \"osrimp version 5.7.2 \"\nout \"osrimp version 5.7.3\"");
  EXPECT_FALSE(get_osrimp_version(home.path(), version));
  EXPECT_EQ(version, "");
  home.tool("osrimp", "out \"osrimp 5.7.2\"\nexit 1");
  EXPECT_FALSE(get_osrimp_version(home.path(), version));
}

TEST(Version_Probe, hostile_output_is_no_version)
{
  const Oscar_Home home;
  home.tool("isql", "out_raw \"(build\"\nout_bytes 200000 \" \"\nout_raw \"\\n\"\nout \"(build 5) for x\"");
  std::string version;
  EXPECT_TRUE(get_isql_version(home.path(), version, false));
  EXPECT_EQ(version, "5");
}

TEST(Log_Mode, is_the_one_cell_of_the_answer)
{
  const Oscar_Home home;
  bool archivelog = false;
  home.isql_answers({" ARCHIVELOG "});
  EXPECT_TRUE(log_mode(home, archivelog));
  EXPECT_TRUE(archivelog);
  for (const char* other : {"NOARCHIVELOG", "archivelog", "ARCHIVELOG2", "x"}) {
    home.isql_answers({other});
    archivelog = true;
    EXPECT_TRUE(log_mode(home, archivelog));
    EXPECT_FALSE(archivelog) << other;
  }
}

TEST(Log_Mode, an_answer_of_another_shape_is_logged_whole)
{
  for (const Names& rows : {Names{}, Names{"ARCHIVELOG", "ARCHIVELOG"}, Names{"ARCHIVELOG|x"}}) {
    Log_Capture log;
    const Oscar_Home home;
    home.isql_answers(rows);
    bool archivelog = true;
    EXPECT_FALSE(log_mode(home, archivelog));
    EXPECT_TRUE(archivelog);
    std::string output = " HEADING \n---------\n";
    for (const std::string& row : rows)
      output += row + "\n";
    output += "(" + std::to_string(rows.size()) + (rows.size() == 1 ? " row)\n" : " rows)\n");
    log.expect_exactly(LM_ERROR, output + "\n");
  }
}

TEST(Log_Mode, a_failing_query_is_reported)
{
  Log_Capture log;
  const Oscar_Home home;
  home.tool("isql", "out printed\nexit 1");
  bool archivelog = false;
  EXPECT_FALSE(log_mode(home, archivelog));
  log.expect_exactly(LM_ERROR, "Failed to get log mode.\n");
}

TEST(Schemas, system_schemas_and_odd_rows_are_left_out)
{
  const Oscar_Home home;
  home.isql_answers({"SYSDBA", " SALES ", "sysdba", "(null)\\ROOT", "Sales\\root", "A|B", "PUBLIC",
                     "  (2 rows)", "caf\xc3\xa9"});
  EXPECT_EQ(schemas_of(home), (Names{"SALES", "sysdba", "(2 rows)", "caf\xc3\xa9"}));
  home.isql_answers({"SYSDBA"});
  EXPECT_EQ(schemas_of(home), Names());
}

TEST(Schemas, are_added_to_what_is_there)
{
  const Oscar_Home home;
  home.isql_answers({"B"});
  Names schemas = {"A"};
  EXPECT_TRUE(get_oscar_schemas(home.path(), "DB1", "sysdba", "secret", 2010, schemas));
  EXPECT_EQ(schemas, (Names{"A", "B"}));
}

TEST(Schemas, a_failing_query_is_reported_with_its_output)
{
  Log_Capture log;
  const Oscar_Home home;
  home.tool("isql", "out \"100%s\"\nexit 1");
  Names schemas;
  EXPECT_FALSE(get_oscar_schemas(home.path(), "DB1", "sysdba", "secret", 2010, schemas));
  log.expect_exactly(LM_ERROR, "Failed to get oscar schemas, 100%s\n\n");
}

TEST(Tables, are_the_second_of_three_cells)
{
  const Oscar_Home home;
  home.tool("isql", "dump_args " + home / "args" +
                        "\nout H\nout -\nout \" S | T1 | TABLE \"\nout \"S|V1|VIEW\"\nout \"S|T2\"\nout "
                        "\"S||T3\"\nout \"S|T4|x|y\"\nout \"(5 rows)\"");
  Names tables;
  EXPECT_TRUE(get_oscar_tables(home.path(), "DB1", "sysdba", "secret", 2010, "S 1", tables));
  EXPECT_EQ(tables, (Names{"T1", "V1", "T4"}));
  EXPECT_EQ(lines_of(home / "args")[6],
            "select TABLE_SCHEM,TABLE_NAME,TABLE_TYPE from v_sys_tables where TABLE_SCHEM='S 1'");
}

TEST(Tables, a_schema_without_tables_is_no_failure)
{
  const Oscar_Home home;
  home.isql_answers({});
  Names tables = {"kept"};
  EXPECT_TRUE(get_oscar_tables(home.path(), "DB1", "sysdba", "secret", 2010, "S", tables));
  EXPECT_EQ(tables, Names{"kept"});
}

TEST(Tables, a_failing_query_is_reported_with_schema_and_output)
{
  Log_Capture log;
  const Oscar_Home home;
  home.tool("isql", "out printed\nexit 1");
  Names tables;
  EXPECT_FALSE(get_oscar_tables(home.path(), "DB1", "sysdba", "secret", 2010, "S%s", tables));
  log.expect_exactly(LM_ERROR, "Failed to get oscar S%s tables printed\n\n");
}

TEST(Tablespaces, are_the_first_cells_as_they_stand)
{
  const Oscar_Home home;
  home.isql_answers({" USERS ", "DATA 2 | x"});
  Names tablespaces = {"kept"};
  EXPECT_TRUE(get_user_tablespaces(home.path(), "DB1", "sysdba", "secret", 2010, tablespaces));
  EXPECT_EQ(tablespaces, (Names{"kept", "USERS", "DATA 2 "}));
}

TEST(Tablespaces, a_failing_query_is_reported_with_its_output)
{
  Log_Capture log;
  const Oscar_Home home;
  home.tool("isql", "out printed\nexit 1");
  Names tablespaces;
  EXPECT_FALSE(get_user_tablespaces(home.path(), "DB1", "sysdba", "secret", 2010, tablespaces));
  log.expect_exactly(LM_ERROR, "printed\n\n");
}

TEST(Cluster_Nodes, are_read_from_three_cells)
{
  const Oscar_Home home;
  home.tool("isql",
            "dump_args " + home / "args" +
                "\nout H\nout -\nout \" 1 | 10.0.0.6 | master \"\nout \"+2|h|slave\"\nout \"(2 rows)\"");
  std::vector<Oscar_Node_Info> nodes;
  EXPECT_TRUE(nodes_of(home, nodes));
  ASSERT_EQ(nodes.size(), 2u);
  EXPECT_EQ(nodes[0].node_id, 1);
  EXPECT_EQ(nodes[0].host, "10.0.0.6");
  EXPECT_EQ(nodes[0].status, "master");
  EXPECT_EQ(nodes[0].instance, "DB1");
  EXPECT_EQ(nodes[1].node_id, 2);
  EXPECT_EQ(lines_of(home / "args")[2], "-h10.0.0.5");
}

TEST(Cluster_Nodes, bad_ids_are_skipped_with_a_warning)
{
  expect_bad_node("2x|b|slave", LM_WARNING, "node id contains non-digit: 2x\n");
  expect_bad_node(" x |b|slave", LM_WARNING, "node id contains non-digit: x\n");
  expect_bad_node("- 2|b|slave", LM_WARNING, "node id contains non-digit: - 2\n");
  expect_bad_node("0|b|slave", LM_WARNING, "node id integer overflow: 0\n");
  expect_bad_node("-3|b|slave", LM_WARNING, "node id integer overflow: -3\n");
  expect_bad_node("99999999999|b|slave", LM_WARNING, "node id integer overflow: 99999999999\n");
  expect_bad_node("-99999999999|b|slave", LM_WARNING, "node id integer overflow: -99999999999\n");
}

TEST(Cluster_Nodes, rows_of_another_shape_are_skipped_with_an_error)
{
  for (const char* row : {"2|b", "2|b|slave|x", "2||slave", "|b|slave", "2"})
    expect_bad_node(row, LM_ERROR,
                    std::string("Error node info,  HEADING \n---------\n1|a|master\n") + row +
                        "\n3|c|slave\n(3 rows)\n\n");
}

TEST(Cluster_Nodes, a_failing_query_is_reported_with_its_output)
{
  Log_Capture log;
  const Oscar_Home home;
  home.tool("isql", "out printed\nexit 1");
  std::vector<Oscar_Node_Info> nodes;
  EXPECT_FALSE(nodes_of(home, nodes));
  log.expect_exactly(LM_ERROR, "Failed to get oscar cluster nodes, printed\n\n");
}

TEST(Catalog_Queries, a_long_output_is_cut_by_the_log_only)
{
  Log_Capture log;
  const Oscar_Home home;
  home.tool("isql", "out_lines 20000 \"line {n} of a long complaint\"\nexit 1");
  Names schemas;
  EXPECT_FALSE(get_oscar_schemas(home.path(), "DB1", "sysdba", "secret", 2010, schemas));
  log.expect(LM_ERROR, "Failed to get oscar schemas, line 0 of a long complaint\nline 1 of");
}

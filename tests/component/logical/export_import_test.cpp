#include "oscar/backup_action_handler.h"
#include "oscar/restore_action_handler.h"

#include "support/fake_tool.h"
#include "support/log_capture.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <sstream>
#include <sys/stat.h>

using namespace kestrel_test;

namespace
{
const std::string PASSWORD = "s3cr3t-pw";

/// An installation with the instance DB1 on port 2010 and tools that write down how they were called.
struct Tools : testing::Test {
  Tools()
  {
    dir.write("home/admin/DB1.conf", "port = 2010\n");
    dir.make_dir("dumps");
    set_tool("osrexp", "write_file ${prefix:file=} dump\n");
    set_tool("osrimp", "");
    set_tool("isql", "");
  }
  ~Tools() override { EXPECT_FALSE(log.contains(PASSWORD)); }

  void set_tool(const std::string& name, const std::string& steps) const
  {
    make_fake_tool(dir, "home/bin/" + name, "dump_args " + (dir / "calls") + "\n" + steps);
  }

  /// One line a call: program and arguments, as the tools got them.
  std::vector<std::string> calls() const
  {
    std::vector<std::string> calls;
    if (!exists(dir / "calls"))
      return calls;
    std::istringstream lines(read_file(dir / "calls"));
    std::string line, call;
    while (std::getline(lines, line)) {
      if (line == "--") {
        calls.push_back(call);
        call.clear();
      } else {
        call += (call.empty() ? "" : " ") + line;
      }
    }
    return calls;
  }

  std::string bin(const std::string& tool) const { return dir / ("home/bin/" + tool); }
  std::string dump(const std::string& name) const { return dir / ("dumps/" + name); }

  void fill(Backup_Input& input, const std::vector<Backup_File>& files) const
  {
    input.oscar_home = dir / "home";
    input.instance = "DB1";
    input.username = "sysdba";
    input.password = PASSWORD.c_str();
    input.files = files;
  }

  void fill(Restore_Input& input, const std::string& schema, const std::string& table) const
  {
    input.original_database = "DB1";
    input.restore_as_database = "DB1";
    input.restore_as_schema = schema;
    input.restore_as_table = table;
    input.backup_file = dir.write("dumps/fetched.dump", "dump", 0600);
    input.oscar_home = dir / "home";
    input.username = "sysdba";
    input.password = PASSWORD.c_str();
  }

  bool exported(const std::vector<Backup_File>& files) const
  {
    Backup_Input input;
    fill(input, files);
    return backup(&input);
  }

  bool imported(const std::string& schema, const std::string& table) const
  {
    Restore_Input input;
    fill(input, schema, table);
    return restore(&input);
  }

  static mode_t mode_of(const std::string& path)
  {
    struct stat status = {};
    EXPECT_EQ(0, ::stat(path.c_str(), &status)) << path;
    return status.st_mode & 07777;
  }

  const Temp_Dir dir;
  Log_Capture log;
  const std::string login = " -Usysdba/" + PASSWORD + " -p2010 -dDB1 ";
};

struct Export : Tools {
};
struct Import : Tools {
};
} // namespace

TEST_F(Export, runs_the_command_of_each_level)
{
  ASSERT_TRUE(
      exported({{"DB1", "", "", dump("db")}, {"DB1", "S", "", dump("s")}, {"DB1", "S", "T", dump("t")}}));
  EXPECT_EQ(
      (std::vector<std::string>{
          bin("osrexp") + login + "file=" + dump("db"),
          bin("osrexp") + login + "level=schema file=" + dump("s") +
              " mode=entirety ignore=false schema=S view=true sequence=true procedure=true constraint=true "
              "trigger=true index=true",
          bin("osrexp") + login + "level=table file=" + dump("t") +
              " mode=entirety ignore=false table=S.T view=false procedure=false sequence=false "
              "constraint=true trigger=true index=true"}),
      calls());
  log.expect_exactly(LM_INFO, "Oscar command:\n\"" + bin("osrexp") +
                                  "\" -Usysdba/*** -p2010 -dDB1 level=table file=" + dump("t") +
                                  " mode=entirety ignore=false table=S.T view=false procedure=false "
                                  "sequence=false constraint=true trigger=true index=true\n");
}

TEST_F(Export, of_a_table_without_a_schema_is_of_the_database)
{
  ASSERT_TRUE(exported({{"DB1", "", "T", dump("t")}}));
  EXPECT_EQ(std::vector<std::string>{bin("osrexp") + login + "file=" + dump("t")}, calls());
}

TEST_F(Export, gives_the_dump_files_their_mode)
{
  set_tool("osrexp", "copy " + dir.write("open", "dump", 0666) + " ${prefix:file=}\n");
  ASSERT_TRUE(exported({{"DB1", "", "", dump("db")}}));
  EXPECT_EQ(0640u, mode_of(dump("db")));
}

TEST_F(Export, of_nothing_runs_nothing)
{
  EXPECT_TRUE(exported({}));
  EXPECT_TRUE(calls().empty());
}

TEST_F(Export, succeeds_when_the_tool_fails_but_leaves_its_file)
{
  set_tool("osrexp", "write_file ${prefix:file=} dump\nerr \"a warning\"\nexit 3\n");
  EXPECT_TRUE(exported({{"DB1", "", "", dump("db")}}));
  log.expect(LM_ERROR, "a warning");
}

TEST_F(Export, fails_when_the_tool_succeeds_without_a_file)
{
  set_tool("osrexp", "");
  EXPECT_FALSE(exported({{"DB1", "", "", dump("db")}}));
  log.expect_exactly(LM_ERROR, "Osr file does not exist, path: '" + dump("db") + "'.\n");
}

TEST_F(Export, fails_when_something_else_has_the_files_name)
{
  set_tool("osrexp", "make_dir ${prefix:file=}\n");
  EXPECT_FALSE(exported({{"DB1", "", "", dump("db")}}));
  log.expect_exactly(LM_ERROR, "Osr file does not exist, path: '" + dump("db") + "'.\n");
}

TEST_F(Export, fails_when_the_tool_is_killed_even_with_its_file)
{
  set_tool("osrexp", "write_file ${prefix:file=} half\ndie KILL\n");
  EXPECT_FALSE(exported({{"DB1", "", "", dump("db")}, {"DB1", "S", "", dump("s")}}));
  EXPECT_EQ(1u, calls().size());
}

TEST_F(Export, fails_when_the_tool_is_missing)
{
  ASSERT_EQ(0, ::remove(bin("osrexp").c_str()));
  EXPECT_FALSE(exported({{"DB1", "", "", dump("db")}}));
}

TEST_F(Export, ends_at_the_first_file_that_fails)
{
  set_tool("osrexp", "if run 2\nexit 0\nend\nwrite_file ${prefix:file=} dump\n");
  EXPECT_FALSE(
      exported({{"DB1", "S", "A", dump("a")}, {"DB1", "S", "B", dump("b")}, {"DB1", "S", "C", dump("c")}}));
  log.expect_exactly(LM_ERROR, "Osr file does not exist, path: '" + dump("b") + "'.\n");
  EXPECT_EQ(2u, calls().size());
  EXPECT_TRUE(exists(dump("a"))) << "the directory is the executor's to clear";
  EXPECT_FALSE(exists(dump("c")));
}

TEST_F(Export, looks_the_port_up_for_every_file)
{
  set_tool("osrexp", "write_file ${prefix:file=} dump\nwrite_file " + (dir / "home/admin/DB1.conf") +
                         " \"port = 2011\\n\"\n");
  ASSERT_TRUE(exported({{"DB1", "", "", dump("a")}, {"DB1", "", "", dump("b")}}));
  EXPECT_NE(std::string::npos, calls().at(0).find(" -p2010 "));
  EXPECT_NE(std::string::npos, calls().at(1).find(" -p2011 "));
}

TEST_F(Export, fails_without_a_port)
{
  dir.write("home/admin/DB1.conf", "port = 0\n");
  EXPECT_FALSE(exported({{"DB1", "", "", dump("db")}}));
  log.expect_exactly(LM_ERROR, "Failed to get port.\n");
  EXPECT_TRUE(calls().empty());
}

TEST_F(Export, passes_names_with_capitals_and_quotes_as_they_are)
{
  ASSERT_TRUE(exported({{"DB1", "Sales", "Täble\"x\"", dump("t")}}));
  EXPECT_NE(std::string::npos, calls().at(0).find(" table=Sales.Täble\"x\" "));
}

TEST_F(Export, of_a_name_with_a_blank_fails_for_want_of_its_file)
{
  EXPECT_FALSE(exported({{"DB1", "S", "T", dump("a name")}}));
  log.expect_exactly(LM_ERROR, "Osr file does not exist, path: '" + dump("a name") + "'.\n");
}

TEST_F(Export, does_not_run_a_command_that_does_not_fit)
{
  EXPECT_FALSE(exported({{"DB1", "S", std::string(2000, 'x'), dump("t")}}));
  log.expect(LM_ERROR, "is not run: a command line holds at most");
  EXPECT_TRUE(calls().empty());
  EXPECT_FALSE(exported({{"DB1", "S", std::string(9000, 'x'), dump("t")}}));
  log.expect(LM_ERROR, "is not run: a command line holds at most");
}

TEST_F(Import, runs_the_command_of_each_level)
{
  const std::string file = "file=" + dump("fetched.dump");
  EXPECT_TRUE(imported("", ""));
  EXPECT_TRUE(imported("S", ""));
  EXPECT_TRUE(imported("S", "T"));
  EXPECT_EQ(
      (std::vector<std::string>{
          bin("osrimp") + login + file + " recreateSchema=true tablespace=true",
          bin("osrimp") + login + file +
              " level=schema mode=entirety ignore=false schema=S recreateschema=true view=true sequence=true "
              "procedure=true recreateotherobject=true recreatetable=true constraint=false "
              "deletetabledata=true trigger=false index=false",
          bin("isql") + " -hlocalhost -p 2010 -Usysdba/" + PASSWORD +
              " -d DB1 -c create schema if not exists S",
          bin("osrimp") + login + file +
              " level=table mode=entirety ignore=false table=S.T recreateschema=false view=false "
              "sequence=true procedure=false recreateotherobject=false recreatetable=true constraint=true "
              "deletetabledata=true trigger=true index=true"}),
      calls());
}

TEST_F(Import, logs_its_table_command_with_the_two_blanks_and_without_the_password)
{
  EXPECT_TRUE(imported("S", "T"));
  log.expect_exactly(LM_INFO,
                     "Oscar command:\n\"" + bin("osrimp") +
                         "\" -Usysdba/*** -p2010 -dDB1 file=" + dump("fetched.dump") +
                         " level=table mode=entirety ignore=false table=S.T recreateschema=false view=false "
                         "sequence=true  procedure=false recreateotherobject=false recreatetable=true "
                         "constraint=true deletetabledata=true trigger=true index=true\n");
  log.expect_exactly(LM_INFO,
                     "Oscar command:\n" + bin("isql") +
                         " -hlocalhost -p 2010 -Usysdba/*** -d DB1 -c \"create schema if not exists S\"\n");
}

TEST_F(Import, of_a_table_without_a_schema_is_of_the_whole_file)
{
  EXPECT_TRUE(imported("", "T"));
  ASSERT_EQ(1u, calls().size());
  EXPECT_EQ(bin("osrimp") + login + "file=" + dump("fetched.dump") + " recreateSchema=true tablespace=true",
            calls()[0]);
}

TEST_F(Import, goes_on_when_the_schema_cannot_be_made)
{
  set_tool("isql", "err \"isql: ERROR, schema S exists\"\nexit 1\n");
  EXPECT_TRUE(imported("S", "T"));
  log.expect(LM_ERROR, "schema S exists");
  EXPECT_EQ(2u, calls().size());
}

TEST_F(Import, accepts_no_status_of_the_tool_but_0)
{
  for (const char* const end : {"exit 1", "exit 255", "die KILL", "die SEGV"}) {
    set_tool("osrimp", end);
    EXPECT_FALSE(imported("S", "")) << end;
  }
  ASSERT_EQ(0, ::remove(bin("osrimp").c_str()));
  EXPECT_FALSE(imported("S", ""));
}

TEST_F(Import, fails_without_a_port)
{
  dir.write("home/admin/DB1.conf", "nothing\n");
  EXPECT_FALSE(imported("S", "T"));
  log.expect_exactly(LM_ERROR, "Failed to get port.\n");
  EXPECT_TRUE(calls().empty());
}

TEST_F(Import, gives_the_dump_file_its_mode)
{
  EXPECT_TRUE(imported("", ""));
  EXPECT_EQ(0640u, mode_of(dump("fetched.dump")));
}

TEST_F(Import, leaves_a_missing_dump_file_to_the_tool)
{
  Restore_Input input;
  fill(input, "", "");
  input.backup_file = dump("gone");
  EXPECT_TRUE(restore(&input)) << "the tool said that it is well";
}

TEST_F(Tools, without_an_input_are_not_run)
{
  EXPECT_FALSE(backup(nullptr));
  EXPECT_FALSE(restore(nullptr));
  log.expect(LM_EMERGENCY, ", input is NULL:\n");
  log.expect(LM_EMERGENCY, ", input is NULL:\n");
  EXPECT_FALSE(Backup_Action_Handler(nullptr).pre_action());
  EXPECT_FALSE(Restore_Action_Handler(nullptr).post_action());
  log.expect(LM_EMERGENCY, ", input_ is NULL:\n");
  log.expect(LM_EMERGENCY, ", input_ is NULL:\n");
  EXPECT_TRUE(calls().empty());
}

TEST_F(Tools, are_run_by_the_action_that_the_transfer_needs)
{
  Backup_Input exporting;
  fill(exporting, {{"DB1", "", "", dump("db")}});
  const Action_Handler_Ptr exporter = oscar::make_action_handler(&exporting);
  EXPECT_FALSE(exporter->ignore_pre_action_failure());
  EXPECT_TRUE(exporter->post_action());
  EXPECT_TRUE(calls().empty());
  EXPECT_TRUE(exporter->pre_action());
  EXPECT_EQ(1u, calls().size());

  Restore_Input importing;
  fill(importing, "", "");
  const Action_Handler_Ptr importer = oscar::make_action_handler(&importing);
  EXPECT_FALSE(importer->ignore_post_action_failure());
  EXPECT_TRUE(importer->pre_action());
  EXPECT_EQ(1u, calls().size());
  EXPECT_TRUE(importer->post_action());
  EXPECT_EQ(2u, calls().size());
  for (const Action_Handler_Ptr& handler : {exporter, importer}) {
    EXPECT_EQ(0, handler->wait_pre_action(nullptr));
    EXPECT_EQ(0, handler->wait_post_action(nullptr));
  }
}

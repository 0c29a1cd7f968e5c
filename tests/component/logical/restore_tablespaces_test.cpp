#include "restore_support.h"

#include <unistd.h>

using namespace kestrel_test;

namespace
{
const char USERS_BUILD[] = "2.5.6x20230817132129";

std::string local_text(time_t time)
{
  struct tm parts = {};
  ::localtime_r(&time, &parts);
  char text[32];
  return std::string(text, std::strftime(text, sizeof text, "%Y%m%d_%H%M%S", &parts));
}

/// The statements other than the question for tablespaces that isql ran.
std::vector<std::string> statements(const Logical_Bench& bench)
{
  std::vector<std::string> statements;
  for (const std::string& call : bench.calls("isql"))
    if (call.find("sys_tablespace") == std::string::npos)
      statements.push_back(call.substr(call.find(" -c ") + 4));
  return statements;
}
} // namespace

TEST(Logical_Restore, creates_the_tablespaces_that_are_missing)
{
  Logical_Bench bench;
  bench.set_tablespaces({"TS1", "TS2", "TS3"});
  bench.back_up(LEVELS);
  ::unlink((bench.dir / "isql.calls").c_str());
  bench.set_tablespaces({"TS2", "ts1"});
  const Job_Ptr job = bench.make_job(bench.restore_fields());
  ASSERT_EQ(JOB_STATE_COMPLETED, bench.run(job));
  const std::string time = local_text(job->activity()->start_time);
  const std::string directory = bench.home + "/odbs/LOGI1/";
  EXPECT_EQ(
      (std::vector<std::string>{"create tablespace TS1 datafile '" + directory + "TS1_" + time + ".dbf'",
                                "create tablespace TS3 datafile '" + directory + "TS3_" + time + ".dbf'"}),
      statements(bench));
  EXPECT_EQ(bench.home + "/bin/isql -Usysdba/" + bench.SECRET +
                " -dLOGI1 -p2010 -c create tablespace TS1 datafile '" + directory + "TS1_" + time + ".dbf'",
            bench.calls("isql").at(1));
  bench.log.expect_exactly(LM_INFO,
                           "Oscar command:\n" + bench.home +
                               "/bin/isql -Usysdba/*** -dLOGI1 -p2010 -c \"create tablespace TS1 datafile '" +
                               directory + "TS1_" + time + ".dbf'\"\n");
}

TEST(Logical_Restore, creates_no_tablespace_that_is_there)
{
  Logical_Bench bench;
  bench.set_tablespaces({"TS1", "TS2"});
  bench.back_up(LEVELS);
  ASSERT_EQ(JOB_STATE_COMPLETED, bench.run(bench.restore_fields()));
  EXPECT_TRUE(statements(bench).empty());
}

TEST(Logical_Restore, creates_the_default_tablespace_for_one_build_of_the_import_tool)
{
  const struct {
    const char* version;
    std::vector<std::string> recorded, existing;
    size_t created;
  } cases[] = {{USERS_BUILD, {}, {}, 1},
               {USERS_BUILD, {"USERS"}, {}, 1},
               {USERS_BUILD, {}, {"USERS"}, 0},
               {USERS_BUILD, {}, {"users"}, 1},
               {"2.5.6x202308171321290", {}, {}, 0},
               {"2.5.6X20230817132129", {}, {}, 0},
               {"2.5.7", {}, {}, 0},
               {"", {}, {}, 0}};
  for (const auto& expected : cases) {
    SCOPED_TRACE(expected.version);
    Logical_Bench bench;
    bench.set_tablespaces(expected.recorded);
    bench.back_up(LEVELS);
    bench.set_tablespaces(expected.existing);
    bench.set_osrimp(expected.version, "");
    ASSERT_EQ(JOB_STATE_COMPLETED, bench.run(bench.restore_fields()));
    ASSERT_EQ(expected.created, statements(bench).size());
    if (expected.created) {
      EXPECT_EQ(0u, statements(bench)[0].find("create tablespace USERS datafile "));
    }
  }
}

TEST(Logical_Restore, goes_on_when_the_import_tool_tells_no_version)
{
  Logical_Bench bench;
  bench.back_up(LEVELS);
  bench.set_tool("osrimp", "if args_match \"^-v$\"\nexit 9\nend\n");
  EXPECT_EQ(JOB_STATE_COMPLETED, bench.run(bench.restore_fields()));
}

TEST(Logical_Restore, fails_when_a_tablespace_is_refused)
{
  Logical_Bench bench;
  bench.set_tablespaces({"TS1", "TS2"});
  bench.back_up(LEVELS);
  bench.set_tablespaces({}, "err \"isql: ERROR, no space\"\nexit 1\n");
  expect_failure(bench, bench.restore_fields(), {18});
  bench.log.expect_exactly(LM_ERROR, "Failed to create tablespace TS1.\n");
  bench.log.allow(LM_ERROR, "isql: ERROR, no space");
  EXPECT_EQ(1u, statements(bench).size());
}

TEST(Logical_Restore, fails_when_the_existing_tablespaces_cannot_be_read)
{
  Logical_Bench bench;
  bench.set_tablespaces({"TS1"});
  bench.back_up(LEVELS);
  bench.set_tool("isql", "err \"isql: ERROR, not now\"\nexit 1\n");
  bench.log.allow(LM_ERROR, "\n");
  expect_failure(bench, bench.restore_fields(), {18});
  EXPECT_TRUE(statements(bench).empty());
}

TEST(Logical_Restore, fails_for_every_wrong_shape_of_the_recorded_tablespaces)
{
  const struct {
    const char* what;
    std::function<void(json_spirit::Value&)> change;
    const char* message;
  } cases[] = {
      {"no object", [](json_spirit::Value& result) { result = json_spirit::Array(); },
       "Failed to get tablespace info.\n"},
      {"no rows", [](json_spirit::Value& result) { result = json_spirit::Object(); },
       "Failed to get tablespace info.\n"},
      {"empty rows", [](json_spirit::Value& result) { member(result, "rows") = json_spirit::Array(); },
       "Failed to get tablespace info.\n"},
      {"row is no object", [](json_spirit::Value& result) { member(result, "rows") = json_spirit::Array{1}; },
       "Failed to get tablespace info.\n"},
      {"no list", [](json_spirit::Value& result) { member(first_row(result), "tablespaces") = "TS1"; },
       "Invalid catalog, exception: "},
      {"missing", [](json_spirit::Value& result) { first_row(result) = json_spirit::Object(); },
       "Invalid catalog, exception: "},
  };
  for (const auto& wrong : cases) {
    SCOPED_TRACE(wrong.what);
    Logical_Bench bench;
    bench.back_up(LEVELS);
    const std::shared_ptr<Shaped_Catalog> catalog = Shaped_Catalog::install();
    catalog->concerns = [](const Shaped_Catalog::Query& query) { return query.count("uuid") > 0; };
    catalog->change = wrong.change;
    expect_failure(bench, bench.restore_fields(), {18});
    bench.log.expect(LM_ERROR, wrong.message);
  }
}

TEST(Logical_Restore, passes_over_recorded_tablespaces_that_are_no_text)
{
  Logical_Bench bench;
  bench.back_up(LEVELS);
  const std::shared_ptr<Shaped_Catalog> catalog = Shaped_Catalog::install();
  catalog->concerns = [](const Shaped_Catalog::Query& query) { return query.count("uuid") > 0; };
  catalog->change = [](json_spirit::Value& result) {
    member(first_row(result), "tablespaces") = json_spirit::Array{7, "TS1", json_spirit::Value(), "TS1"};
  };
  EXPECT_EQ(JOB_STATE_COMPLETED, bench.run(bench.restore_fields()));
  EXPECT_EQ(1u, statements(bench).size());
}

#include "catalog_fixture.h"

#include "catalog/catalog_admin.h"
#include "catalog/sql_back_end.h"

#include <sqlite3.h>

#include <mutex>
#include <set>

namespace
{
/// Sees the text of every statement that any connection of the process runs.
class Statement_Trace
{
public:
  Statement_Trace()
  {
    statements().clear();
    sqlite3_auto_extension(reinterpret_cast<void (*)()>(&install));
  }
  ~Statement_Trace() { sqlite3_cancel_auto_extension(reinterpret_cast<void (*)()>(&install)); }
  static std::set<std::string>& statements()
  {
    static std::set<std::string> texts;
    return texts;
  }

private:
  static int install(sqlite3* database, const char**, const void*)
  {
    sqlite3_trace_v2(database, SQLITE_TRACE_STMT, &note, nullptr);
    return SQLITE_OK;
  }
  static int note(unsigned, void*, void* statement, void*)
  {
    statements().insert(sqlite3_sql(static_cast<sqlite3_stmt*>(statement)));
    return 0;
  }
};
} // namespace

class Catalog_Plan : public Catalog_Fixture
{
protected:
  /// The lines of the plan of one statement.
  static std::vector<std::string> plan(const std::string& statement)
  {
    std::vector<std::string> lines;
    sqlite3* database = nullptr;
    EXPECT_EQ(SQLITE_OK, sqlite3_open(kestrel::default_catalog_place().path.c_str(), &database));
    sqlite3_stmt* prepared = nullptr;
    const std::string text = "EXPLAIN QUERY PLAN " + statement;
    EXPECT_EQ(SQLITE_OK, sqlite3_prepare_v2(database, text.c_str(), -1, &prepared, nullptr)) << text;
    while (sqlite3_step(prepared) == SQLITE_ROW)
      lines.push_back(reinterpret_cast<const char*>(sqlite3_column_text(prepared, 3)));
    sqlite3_finalize(prepared);
    sqlite3_close(database);
    return lines;
  }
  /// Runs the query and checks that its statement reads the rows through this index, already in order.
  void expect_index(const Query& query, const std::string& index, const char* catalog = "oscar_brcmd")
  {
    std::set<std::string> statements;
    {
      Statement_Trace trace;
      rows(query, catalog);
      statements = Statement_Trace::statements();
    }
    unsigned found = 0;
    for (const std::string& statement : statements)
      if (statement.find("FROM backup_set s") != std::string::npos) {
        const std::vector<std::string> lines = plan(statement);
        ASSERT_FALSE(lines.empty());
        EXPECT_NE(std::string::npos, lines[0].find("INDEX " + index + " (")) << statement << "\n" << lines[0];
        ++found;
      }
    EXPECT_EQ(1u, found);
  }
};

TEST_F(Catalog_Plan, the_queries_of_jobs_use_their_index)
{
  ASSERT_TRUE(rows({}).empty());
  expect_index({{"resource_uuid", "r"},
                {"backup_id", "b"},
                {"backup_lsn", 1},
                {"backup_scn", 2},
                {"sort", "start_time"},
                {"order", "desc"}},
               "backup_set_by_backup_id");
  expect_index({{"resource_uuid", "r"}, {"sort", "backup_start_time"}, {"order", "desc"}},
               "backup_set_by_resource");
  expect_index({{"definition_uuid", "d"}, {"sort", "seq"}, {"order", "desc"}, {"limit", 1}},
               "backup_set_by_seq", "oscar");
  expect_index({{"resource_uuid", "r"},
                {"database", "d"},
                {"grade", "g"},
                {"with_files", true},
                {"sort", "backup_start_time"},
                {"order", "desc"}},
               "backup_set_by_resource", "oscar");
  expect_index({{"uuid", "u"}, {"sort", "backup_start_time"}, {"order", "desc"}}, "backup_set_by_uuid",
               "oscar");
}

// An index in the wanted order must not win against one that finds the few rows of an id.
TEST_F(Catalog_Plan, an_id_beats_the_order)
{
  ASSERT_TRUE(rows({}).empty());
  for (const char* sort : {"start_time", "name", "backup_lsn", "colour", ""}) {
    expect_index({{"uuid", "u"}, {"sort", sort}}, "backup_set_by_uuid");
    expect_index({{"backup_id", "b"}, {"sort", sort}}, "backup_set_by_backup_id");
    expect_index({{"predecessor_id", "b"}, {"sort", sort}}, "backup_set_by_predecessor");
    expect_index({{"definition_uuid", "d"}, {"uuid", "u"}, {"sort", sort}}, "backup_set_by_uuid");
  }
}

TEST_F(Catalog_Plan, the_listings_use_their_index)
{
  ASSERT_TRUE(rows({}).empty());
  const Query newest = {{"sort", "start_time"}, {"order", "desc"}, {"limit", 50}};
  const auto with = [&](const char* key) {
    Query query = newest;
    query[key] = "x";
    return query;
  };
  expect_index(newest, "backup_set_by_time");
  expect_index(with("resource_uuid"), "backup_set_by_resource");
  expect_index(with("definition_uuid"), "backup_set_by_definition");
  expect_index(with("pool_uuid"), "backup_set_by_pool");
}

// Whatever statement the module runs on a table of sets, it must not read the whole table nor sort it.
TEST_F(Catalog_Plan, no_statement_scans_or_sorts)
{
  Oscar_Backup_Set logical = make_logical_set("u1", 1);
  logical.add_file("DB", "", "", "/d/1");
  logical.add_piece("p", 1);
  ASSERT_TRUE(rows({}).empty());
  {
    Statement_Trace trace;
    ASSERT_TRUE(commit(make_set("F")));
    ASSERT_TRUE(commit(make_set("I", "incr", "F", "F")));
    ASSERT_TRUE(commit(logical));
    EXPECT_EQ("F I", chain("I"));
    rows({{"backup_id", "I"}, {"resource_uuid", "resource-1"}}, "oscar_brcmd", "catalog_sequences");
    rows({{"resource_uuid", "resource-1"}, {"with_chain", true}, {"sort", "start_time"}, {"order", "desc"}});
    rows({{"resource_uuid", "resource-2"}, {"with_files", true}, {"sort", "start_time"}}, "oscar");
    std::string error;
    std::vector<std::string> uuids;
    uint64_t count = 0;
    kestrel::Catalog_Admin admin(0);
    ASSERT_TRUE(admin.dependents("F", uuids, error)) << error;
    ASSERT_TRUE(admin.set_state("F", kestrel::Set_State::unavailable, "r", error)) << error;
    ASSERT_TRUE(admin.count_by_pool("pool-1", count, error)) << error;
    ASSERT_TRUE(admin.remove("u1", error)) << error;
    ASSERT_TRUE(admin.remove("F", error)) << error;
  }
  unsigned checked = 0;
  for (const std::string& statement : Statement_Trace::statements()) {
    if (statement.find("backup_set") == std::string::npos || statement.rfind("CREATE", 0) == 0 ||
        statement.rfind("--", 0) == 0)
      continue;
    ++checked;
    for (const std::string& line : plan(statement)) {
      EXPECT_NE(0u, line.rfind("SCAN", 0)) << statement << "\n" << line;
      EXPECT_EQ(std::string::npos, line.find("TEMP B-TREE")) << statement << "\n" << line;
    }
  }
  EXPECT_GE(checked, 18u);
}

#include "catalog_fixture.h"

#include <limits>

using json_spirit::find_value;

class Catalog_Query_Test : public Catalog_Fixture
{
protected:
  void commit_logical(const std::string& uuid, uint64_t seq, const std::string& database,
                      const std::string& schema, time_t start_time)
  {
    Oscar_Backup_Set set = make_logical_set(uuid, seq, start_time);
    set.add_file(database, schema, "", "/d/" + uuid + ".dump");
    ASSERT_TRUE(commit(set));
  }
  void expect_refused(const Query& query, const std::string& text, const char* catalog = "oscar_brcmd",
                      const char* view_name = "catalogs")
  {
    json_spirit::Value result("untouched");
    EXPECT_FALSE(view(query, result, catalog, view_name)) << text;
    EXPECT_EQ("untouched", result.get_str());
    log_.expect(LM_ERROR, text);
  }
};

TEST_F(Catalog_Query_Test, filters_by_every_text_field)
{
  ASSERT_TRUE(commit(make_set("b1")));
  Oscar_Brcmd_Backup_Set other = make_set("b2");
  other.set_resource_uuid("resource-9");
  other.set_name("weekly");
  other.set_type("full");
  other.set_definition_uuid("definition-9");
  ASSERT_TRUE(commit(other));
  EXPECT_EQ("b2", ids({{"resource_uuid", "resource-9"}}));
  EXPECT_EQ("b2", ids({{"name", "weekly"}, {"definition_uuid", "definition-9"}}));
  EXPECT_EQ("b1", ids({{"uuid", "b1"}}));
  EXPECT_EQ("b1 b2", ids({{"pool_uuid", "pool-1"}, {"state", "available"}}));
  EXPECT_EQ("", ids({{"name", "weekly"}, {"uuid", "b1"}}));
}

TEST_F(Catalog_Query_Test, sorts_by_start_time_under_both_names)
{
  ASSERT_TRUE(commit(make_set("old", "full", "", "", 100)));
  ASSERT_TRUE(commit(make_set("new", "full", "", "", 300)));
  ASSERT_TRUE(commit(make_set("mid", "full", "", "", 200)));
  for (const char* key : {"start_time", "backup_start_time"}) {
    EXPECT_EQ("new mid old", ids({{"sort", key}, {"order", "desc"}}));
    EXPECT_EQ("old mid new", ids({{"sort", key}, {"order", "asc"}}));
    EXPECT_EQ("old mid new", ids({{"sort", key}}));
    EXPECT_EQ("mid", ids({{key, 200}}));
  }
}

TEST_F(Catalog_Query_Test, ties_follow_commit_order)
{
  for (const char* id : {"a", "c", "b"})
    ASSERT_TRUE(commit(make_set(id, "full", "", "", 500)));
  EXPECT_EQ("a c b", ids({{"sort", "start_time"}, {"order", "asc"}}));
  EXPECT_EQ("b c a", ids({{"sort", "start_time"}, {"order", "desc"}}));
}

TEST_F(Catalog_Query_Test, an_unknown_sort_key_keeps_commit_order)
{
  for (const char* id : {"b", "c", "a"})
    ASSERT_TRUE(commit(make_set(id)));
  EXPECT_EQ("b c a", ids({{"sort", "colour"}, {"order", "desc"}}));
  EXPECT_EQ("b c a", ids({}));
  EXPECT_EQ("a c b", ids({{"order", "desc"}}));
}

TEST_F(Catalog_Query_Test, seq_sorts_as_an_unsigned_number)
{
  const uint64_t big = std::numeric_limits<uint64_t>::max();
  for (const auto& [uuid, seq] :
       std::map<std::string, uint64_t>{{"u9", 9}, {"u10", 10}, {"ubig", big}, {"u0", 0}})
    ASSERT_TRUE(commit(make_logical_set(uuid, seq)));
  const Query latest = {
      {"definition_uuid", "definition-2"}, {"sort", "seq"}, {"order", "desc"}, {"limit", 1}};
  const json_spirit::Array found = rows(latest, "oscar");
  ASSERT_EQ(1u, found.size());
  EXPECT_EQ(big, find_value(found[0].get_obj(), "seq").get_uint64());
  EXPECT_EQ("u0 u9 u10 ubig", texts(rows({{"sort", "seq"}}, "oscar"), "uuid"));
}

TEST_F(Catalog_Query_Test, limit_and_offset_cut_a_page)
{
  for (const char* id : {"a", "b", "c", "d"})
    ASSERT_TRUE(commit(make_set(id)));
  EXPECT_EQ("a b", ids({{"limit", 2}}));
  EXPECT_EQ("b c", ids({{"limit", 2}, {"offset", 1}}));
  EXPECT_EQ("d", ids({{"offset", 3}}));
  EXPECT_EQ("", ids({{"limit", 0}}));
  EXPECT_EQ("", ids({{"offset", 4}}));
}

TEST_F(Catalog_Query_Test, a_logical_restore_finds_sets_by_database_and_grade)
{
  commit_logical("u1", 1, "DB", "", 100);
  commit_logical("u2", 2, "DB", "S", 200);
  commit_logical("u3", 3, "DB", "", 300);
  commit_logical("u4", 4, "OTHER", "", 400);
  const Query query = {{"resource_uuid", "resource-2"}, {"database", "DB"},
                       {"grade", "database"},           {"with_files", true},
                       {"sort", "backup_start_time"},   {"order", "desc"}};
  const json_spirit::Array found = rows(query, "oscar");
  EXPECT_EQ("u3 u1", texts(found, "uuid"));
  EXPECT_EQ(
      "/d/u3.dump",
      find_value(find_value(found[0].get_obj(), "backup_files").get_array()[0].get_obj(), "file").get_str());
  EXPECT_EQ("u2", texts(rows({{"database", "DB"}, {"grade", "schema"}}, "oscar"), "uuid"));
}

// One file has the database, another the grade: the set does not match.
TEST_F(Catalog_Query_Test, database_and_grade_must_be_of_the_same_file)
{
  Oscar_Backup_Set set = make_logical_set("u1", 1);
  set.add_file("A", "S", "", "/d/1");
  set.add_file("B", "", "", "/d/2");
  ASSERT_TRUE(commit(set));
  EXPECT_TRUE(rows({{"database", "A"}, {"grade", "database"}}, "oscar").empty());
  EXPECT_EQ(1u, rows({{"database", "B"}, {"grade", "database"}}, "oscar").size());
}

TEST_F(Catalog_Query_Test, refuses_what_it_cannot_answer)
{
  expect_refused({{"colour", "red"}}, "'colour' is not a field");
  expect_refused({{"seq", 1}}, "'seq' is not a field");
  expect_refused({{"tablespaces", "x"}}, "'tablespaces' is not a field", "oscar");
  expect_refused({{"name", 1}}, "'name' must be a text");
  expect_refused({{"name", json_spirit::Value()}}, "'name' must be a text");
  expect_refused({{"backup_lsn", "1"}}, "'backup_lsn' must be an integer");
  expect_refused({{"backup_lsn", 1.5}}, "'backup_lsn' must be an integer");
  expect_refused({{"limit", -1}}, "'limit' must not be negative");
  expect_refused({{"offset", "1"}}, "'offset' must be an integer");
  expect_refused({{"order", "down"}}, "'order' must be");
  expect_refused({{"sort", 1}}, "'sort' must be a text");
  expect_refused({{"with_files", 1}}, "'with_files' must be true or false", "oscar");
  expect_refused({}, "no catalog 'mysql'", "mysql");
  expect_refused({}, "no view 'tables'", "oscar_brcmd", "tables");
}

TEST_F(Catalog_Query_Test, refuses_missing_names_and_unknown_connections)
{
  json_spirit::Value result;
  EXPECT_FALSE(Catalog_Operator(-1, 0).get_view(nullptr, "catalogs", {}, result));
  log_.expect(LM_ERROR, "is missing");
  EXPECT_FALSE(Catalog_Operator(-1, 0).get_view("oscar", nullptr, {}, result));
  log_.expect(LM_ERROR, "is missing");
  EXPECT_FALSE(Catalog_Operator(3, 0).get_view("oscar", "catalogs", {}, result));
  log_.expect(LM_ERROR, "no catalog connection 3");
  EXPECT_FALSE(Catalog_Operator(3, 0).commit(make_set("b1"), true));
  log_.expect(LM_ERROR, "no catalog connection 3");
}

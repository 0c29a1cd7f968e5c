#include "catalog_fixture.h"

#include "catalog/catalog_admin.h"
#include "catalog/catalog_database.h"
#include "catalog/sql_back_end.h"

using json_spirit::find_value;

class Catalog_Sequence : public Catalog_Fixture
{
protected:
  /// full F, incrementals I1 and I2 on it, differential D, and an incremental DI on the differential.
  void commit_tree()
  {
    ASSERT_TRUE(commit(make_set("F", "full", "", "", 100)));
    ASSERT_TRUE(commit(make_set("I1", "incr", "F", "F", 200)));
    ASSERT_TRUE(commit(make_set("I2", "incr", "I1", "F", 300)));
    ASSERT_TRUE(commit(make_set("D", "diff", "I2", "F", 400)));
    ASSERT_TRUE(commit(make_set("DI", "incr", "D", "F", 500)));
  }
  std::string problem(const std::string& backup_id)
  {
    json_spirit::Value result;
    EXPECT_TRUE(view({{"backup_id", backup_id}}, result, "oscar_brcmd", "catalog_sequences"));
    EXPECT_TRUE(find_value(result.get_obj(), "rows").get_array().empty());
    return find_value(result.get_obj(), "problem").get_str();
  }
};

TEST_F(Catalog_Sequence, begins_with_the_full_backup_for_every_order)
{
  commit_tree();
  for (const char* order : {"desc", "asc", "sideways"})
    EXPECT_EQ("F I1 I2",
              texts(rows({{"backup_id", "I2"}, {"order", order}}, "oscar_brcmd", "catalog_sequences"),
                    "backup_id"));
  EXPECT_EQ("F", chain("F"));
  EXPECT_EQ("F I1", chain("I1"));
}

TEST_F(Catalog_Sequence, a_differential_needs_only_its_full_backup)
{
  commit_tree();
  EXPECT_EQ("F D", chain("D"));
  EXPECT_EQ("F D DI", chain("DI"));
}

TEST_F(Catalog_Sequence, rows_have_what_the_restore_reads)
{
  commit_tree();
  const json_spirit::Array found = rows({{"backup_id", "I1"}}, "oscar_brcmd", "catalog_sequences");
  ASSERT_EQ(2u, found.size());
  for (const json_spirit::Value& row : found) {
    EXPECT_EQ(4096u, find_value(row.get_obj(), "backup_set_size").get_uint64());
    EXPECT_EQ("pool-1", find_value(row.get_obj(), "pool_uuid").get_str());
    EXPECT_EQ("resource-1", find_value(row.get_obj(), "uri").get_str());
    EXPECT_EQ(find_value(row.get_obj(), "backup_id").get_str() + ".bak",
              find_value(row.get_obj(), "backup_file").get_str());
  }
}

TEST_F(Catalog_Sequence, returns_no_rows_when_a_link_is_missing)
{
  commit_tree();
  std::string error;
  ASSERT_TRUE(kestrel::Catalog_Admin(0).remove("I1", error));
  EXPECT_EQ("Backup I1, on which a later one builds, is not in the catalog", problem("I2"));
  EXPECT_EQ("F D", chain("D"));
}

TEST_F(Catalog_Sequence, returns_no_rows_for_an_unknown_backup)
{
  commit_tree();
  EXPECT_EQ("Backup nowhere is not in the catalog", problem("nowhere"));
  log_.expect(LM_NOTICE, "Backup nowhere is not in the catalog");
}

TEST_F(Catalog_Sequence, returns_no_rows_when_a_member_is_not_available)
{
  commit_tree();
  std::string error;
  ASSERT_TRUE(
      kestrel::Catalog_Admin(0).set_state("F", kestrel::Set_State::unavailable, "file is gone", error));
  for (const char* id : {"F", "I1", "I2", "D", "DI"})
    EXPECT_EQ("Backup F is not available: file is gone", problem(id));
}

TEST_F(Catalog_Sequence, returns_no_rows_for_a_circle)
{
  ASSERT_TRUE(commit(make_set("A", "incr", "B", "B")));
  log_.expect(LM_WARNING, "'A' builds on backup 'B', which is not in the catalog");
  ASSERT_TRUE(commit(make_set("B", "incr", "A", "A")));
  log_.expect(LM_WARNING, "'B' cannot be restored");
  EXPECT_EQ("The chain of backup A runs in a circle at A", problem("A"));

  ASSERT_TRUE(commit(make_set("SELF", "incr", "SELF", "SELF")));
  log_.expect(LM_WARNING, "'SELF' builds on backup 'SELF'");
  EXPECT_EQ("The chain of backup SELF runs in a circle at SELF", problem("SELF"));
}

TEST_F(Catalog_Sequence, stays_within_the_resource)
{
  Oscar_Brcmd_Backup_Set full = make_set("F");
  full.set_resource_uuid("resource-2");
  ASSERT_TRUE(commit(full));
  ASSERT_TRUE(commit(make_set("I1", "incr", "F", "F")));
  log_.expect(LM_WARNING, "'I1' builds on backup 'F'");
  EXPECT_NE("", problem("I1"));
  EXPECT_TRUE(rows({{"backup_id", "F"}, {"resource_uuid", "resource-1"}}, "oscar_brcmd", "catalog_sequences")
                  .empty());
  EXPECT_EQ(
      1u,
      rows({{"backup_id", "F"}, {"resource_uuid", "resource-2"}}, "oscar_brcmd", "catalog_sequences").size());
}

// Tools make their ids from time and process number: two hosts may hit the same one.
TEST_F(Catalog_Sequence, tells_apart_equal_ids_of_two_resources)
{
  commit_tree();
  for (const char* id : {"F", "I1"}) {
    Oscar_Brcmd_Backup_Set set = make_set(id, id[0] == 'F' ? "full" : "incr", "F", "F");
    set.set_resource_uuid("resource-2");
    ASSERT_TRUE(commit(set));
  }
  EXPECT_EQ("Several resources have a backup I1: say which with resource_uuid", problem("I1"));
  EXPECT_EQ("F I1 I2", chain("I2"));
  const json_spirit::Array found =
      rows({{"backup_id", "I1"}, {"resource_uuid", "resource-2"}}, "oscar_brcmd", "catalog_sequences");
  ASSERT_EQ(2u, found.size());
  for (const json_spirit::Value& row : found)
    EXPECT_EQ("resource-2", find_value(row.get_obj(), "resource_uuid").get_str());

  std::string error;
  EXPECT_FALSE(kestrel::Catalog_Admin(0).remove("F", error));
  EXPECT_NE(std::string::npos, error.find("Several resources")) << error;
}

TEST_F(Catalog_Sequence, follows_a_long_chain)
{
  std::vector<Oscar_Brcmd_Backup_Set> sets = {make_set("0")};
  std::string expected = "0";
  for (int i = 1; i < 120; ++i) {
    sets.push_back(make_set(std::to_string(i), "incr", std::to_string(i - 1), "0"));
    expected += " " + std::to_string(i);
  }
  commit_many(sets);
  EXPECT_EQ(expected, chain("119"));
}

TEST_F(Catalog_Sequence, refuses_queries_without_a_backup_id)
{
  json_spirit::Value result;
  for (const Query& query : {Query{}, Query{{"backup_id", ""}}, Query{{"backup_id", 5}}}) {
    EXPECT_FALSE(view(query, result, "oscar_brcmd", "catalog_sequences"));
    log_.expect(LM_ERROR, "'backup_id'");
  }
  EXPECT_FALSE(view({{"backup_id", "F"}, {"limit", 1}}, result, "oscar_brcmd", "catalog_sequences"));
  log_.expect(LM_ERROR, "does not know the key 'limit'");
}

TEST_F(Catalog_Sequence, exists_for_physical_sets_only)
{
  json_spirit::Value result;
  EXPECT_FALSE(view({{"backup_id", "F"}}, result, "oscar", "catalog_sequences"));
  log_.expect(LM_ERROR, "'oscar' has no view 'catalog_sequences'");
}

TEST_F(Catalog_Sequence, dependents_are_all_sets_that_build_on_one)
{
  commit_tree();
  std::vector<std::string> uuids;
  std::string error;
  ASSERT_TRUE(kestrel::Catalog_Admin(0).dependents("F", uuids, error));
  EXPECT_EQ((std::vector<std::string>{"I1", "D", "I2", "DI"}), uuids);
  ASSERT_TRUE(kestrel::Catalog_Admin(0).dependents("DI", uuids, error));
  EXPECT_TRUE(uuids.empty());
  EXPECT_FALSE(kestrel::Catalog_Admin(0).dependents("X", uuids, error));
}

TEST_F(Catalog_Sequence, refuses_a_differential_set_on_anything_but_a_full_one)
{
  ASSERT_TRUE(commit(make_set("F")));
  ASSERT_TRUE(commit(make_set("I1", "incr", "F", "F")));
  ASSERT_TRUE(commit(make_set("D", "diff", "I1", "I1")));
  const std::string why = "Backup I1, on which the differential backup D builds, is not a full backup";
  EXPECT_EQ(why, problem("D"));
  ASSERT_TRUE(commit(make_set("DI", "incr", "D", "I1")));
  log_.expect(LM_WARNING, "'DI' cannot be restored");
  EXPECT_EQ(why, problem("DI"));
}

TEST_F(Catalog_Sequence, a_row_with_its_chain_tells_children_length_and_problem)
{
  commit_tree();
  const auto shown = [](const char* order) {
    std::string text;
    for (const json_spirit::Value& row :
         rows({{"with_chain", true}, {"sort", "start_time"}, {"order", order}})) {
      text += find_value(row.get_obj(), "backup_id").get_str() + ":" +
              std::to_string(find_value(row.get_obj(), "chain_length").get_int());
      for (const json_spirit::Value& child : find_value(row.get_obj(), "children").get_array())
        text += "," + child.get_str();
      text += find_value(row.get_obj(), "chain_problem").type() == json_spirit::str_type ? "! " : " ";
    }
    return text;
  };
  EXPECT_EQ("F:1,I1,D I1:2,I2 I2:3 D:2,DI DI:3 ", shown("asc"));
  EXPECT_EQ("DI:3 D:2,DI I2:3 I1:2,I2 F:1,I1,D ", shown("desc"));
  std::string error;
  ASSERT_TRUE(kestrel::Catalog_Admin(0).set_state("D", kestrel::Set_State::unavailable, "gone", error));
  ASSERT_TRUE(kestrel::Catalog_Admin(0).remove("I1", error));
  EXPECT_EQ("F:1,D I2:0! D:0,DI! DI:0! ", shown("asc"));
  EXPECT_EQ("DI:0! D:0,DI! I2:0! F:1,D ", shown("desc"));
}

TEST_F(Catalog_Sequence, the_problem_of_a_row_is_that_of_its_sequence)
{
  commit_tree();
  std::string error;
  ASSERT_TRUE(kestrel::Catalog_Admin(0).set_state("D", kestrel::Set_State::unavailable, "gone", error));
  ASSERT_TRUE(kestrel::Catalog_Admin(0).remove("I1", error));
  for (const json_spirit::Value& row : rows({{"with_chain", true}})) {
    const std::string id = find_value(row.get_obj(), "backup_id").get_str();
    const uint64_t length = find_value(row.get_obj(), "chain_length").get_uint64();
    EXPECT_EQ(length, rows({{"backup_id", id}}, "oscar_brcmd", "catalog_sequences").size()) << id;
    if (length == 0) {
      EXPECT_EQ(problem(id), find_value(row.get_obj(), "chain_problem").get_str());
    }
  }
}

TEST_F(Catalog_Sequence, the_flag_follows_the_predecessor)
{
  const auto flags = [] {
    std::string text;
    for (const json_spirit::Value& row : rows({}))
      text += find_value(row.get_obj(), "backup_id").get_str() +
              (find_value(row.get_obj(), "predecessor_missing").get_bool() ? "! " : " ");
    return text;
  };
  ASSERT_TRUE(commit(make_set("I1", "incr", "F", "F")));
  log_.expect(LM_WARNING, "'I1' builds on backup 'F', which is not in the catalog");
  EXPECT_EQ("I1! ", flags());
  ASSERT_TRUE(commit(make_set("I2", "incr", "I1", "F")));
  log_.expect(LM_WARNING, "'I2' cannot be restored, because a backup that it builds on cannot: Backup F, on");
  EXPECT_EQ("I1! I2 ", flags());
  ASSERT_TRUE(commit(make_set("F")));
  EXPECT_EQ("I1 I2 F ", flags());
  EXPECT_EQ("F I1 I2", chain("I2"));
  std::string error;
  ASSERT_TRUE(kestrel::Catalog_Admin(0).remove("F", error));
  EXPECT_EQ("I1! I2 ", flags());
}

TEST_F(Catalog_Sequence, with_chain_is_for_physical_sets_and_a_flag)
{
  json_spirit::Value result;
  EXPECT_FALSE(view({{"with_chain", true}}, result, "oscar"));
  log_.expect(LM_ERROR, "'with_chain' is not a field to select by");
  EXPECT_FALSE(view({{"with_chain", 1}}, result));
  log_.expect(LM_ERROR, "'with_chain' must be true or false");
}

// Records that this code does not write, but another writer might.
TEST_F(Catalog_Sequence, survives_foreign_records)
{
  commit_tree();
  const auto change = [](const std::string& set, const std::string& id) {
    kestrel::Catalog_Database database(kestrel::default_catalog_place());
    kestrel::Catalog_Transaction transaction(database.session(), kestrel::Catalog_Transaction::Kind::write);
    database.session() << "UPDATE backup_set SET " + set + " WHERE uuid = '" + id + "'";
    transaction.commit();
  };
  change("state = 'expired', state_reason = ''", "I1");
  EXPECT_EQ("Backup I1 is not available: ", problem("I2"));
  change("state = ''", "I1");
  EXPECT_EQ("Backup I1 is not available: ", problem("I2"));
  change("type = NULL", "F");
  EXPECT_EQ("Backup F, on which the differential backup D builds, is not a full backup", problem("DI"));
  change("predecessor_id = ''", "I1");
  change("state = 'available'", "I1");
  EXPECT_EQ("I1 I2", chain("I2"));
  change("backup_id = NULL", "I1");
  EXPECT_EQ("Backup I1, on which a later one builds, is not in the catalog", problem("I2"));
  const json_spirit::Array all = rows({{"with_chain", true}});
  ASSERT_EQ(5u, all.size());
  EXPECT_EQ(0u, find_value(all[1].get_obj(), "chain_length").get_uint64());
}

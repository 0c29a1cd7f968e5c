#include "catalog_fixture.h"

#include "catalog/catalog_admin.h"
#include "catalog/catalog_back_end.h"
#include "catalog/sql_back_end.h"

#include <thread>

using json_spirit::find_value;
using kestrel::Backup_Record;
using kestrel::Catalog_Admin;
using kestrel::Catalog_Status;

class Catalog_Commit : public Catalog_Fixture
{
protected:
  /// What the local catalog says to a record that no set class would make.
  std::string refusal(const Backup_Record& record)
  {
    std::string warning, error;
    kestrel::Sql_Back_End back_end(kestrel::default_catalog_place());
    EXPECT_EQ(Catalog_Status::failed, back_end.commit(record, true, warning, error));
    return error;
  }
};

TEST_F(Catalog_Commit, records_a_set_once)
{
  ASSERT_TRUE(commit(make_set("b1")));
  EXPECT_FALSE(commit(make_set("b1")));
  log_.expect(LM_ERROR, "already has a backup set 'b1'");
  Oscar_Brcmd_Backup_Set changed = make_set("b1");
  changed.set_name("other");
  EXPECT_TRUE(Catalog_Operator(-1, 0).commit(changed, false)) << "a repeated commit counts as done";
  EXPECT_EQ("nightly", texts(rows({}), "name"));
}

TEST_F(Catalog_Commit, flags_an_incremental_without_its_predecessor)
{
  ASSERT_TRUE(commit(make_set("F")));
  ASSERT_TRUE(commit(make_set("I2", "incr", "I1", "F")));
  log_.expect(LM_WARNING,
              "Backup set 'I2' builds on backup 'I1', which is not in the catalog: it cannot be restored");
  ASSERT_TRUE(commit(make_set("D", "diff", "I2", "F")))
      << "only the full backup matters to a differential one";
  EXPECT_EQ("I2", ids({{"predecessor_missing", true}}));
  EXPECT_EQ("F D", ids({{"predecessor_missing", false}}));
  EXPECT_EQ("I1", texts(rows({{"uuid", "I2"}}), "predecessor_id"));
}

TEST_F(Catalog_Commit, a_differential_without_its_full_backup_is_flagged)
{
  ASSERT_TRUE(commit(make_set("D", "diff", "I2", "F")));
  log_.expect(LM_WARNING, "'D' builds on backup 'F'");
}

TEST_F(Catalog_Commit, refuses_sets_that_could_not_be_found_again)
{
  const auto refused = [&](const Oscar_Brcmd_Backup_Set& set, const std::string& text) {
    EXPECT_FALSE(commit(set)) << text;
    log_.expect(LM_ERROR, text);
  };
  Oscar_Brcmd_Backup_Set set = make_set("b1");
  set.set_uuid("");
  refused(set, "'uuid' is empty");
  set = make_set("b1");
  set.set_backup_id("");
  refused(set, "'backup_id' is empty");
  refused(make_set("b1", "export"), "'type' is 'export' and not one of full, incr, diff");
  refused(make_set("b1", ""), "'type' is ''");
  set = make_set("b1", "incr");
  set.set_last_backup_id("");
  refused(set, "'last_backup_id' is empty");
  set = make_set("b1", "diff");
  set.set_last_full_backup_id("");
  refused(set, "'last_full_backup_id' is empty");
  EXPECT_FALSE(commit(make_logical_set("", 1)));
  log_.expect(LM_ERROR, "'uuid' is empty");
  EXPECT_TRUE(rows({}).empty());
  EXPECT_TRUE(rows({}, "oscar").empty());
}

TEST_F(Catalog_Commit, refuses_records_of_the_wrong_shape)
{
  const Backup_Record good = make_set("b1").record();
  const std::vector<std::pair<std::string, json_spirit::Value>> changes = {
      {"colour", "red"},
      {"seq", 1},
      {"state", "unavailable"},
      {"predecessor_id", "x"},
      {"backup_start_time", 5},
      {"name", 1},
      {"name", json_spirit::Value()},
      {"start_time", "now"},
      {"backup_lsn", 1.5},
      {"backup_lsn", json_spirit::Value()}};
  for (const auto& [field, value] : changes) {
    Backup_Record record = good;
    record.fields[field] = value;
    EXPECT_NE(std::string::npos, refusal(record).find("'" + field + "'")) << field << refusal(record);
  }
  Backup_Record record = good;
  record.catalog = "mysql";
  EXPECT_EQ("There is no catalog 'mysql'", refusal(record));
  EXPECT_TRUE(rows({}).empty());
}

TEST_F(Catalog_Commit, a_record_may_lack_fields)
{
  Backup_Record record;
  record.catalog = "oscar";
  record.fields["uuid"] = "u1";
  std::string warning, error;
  kestrel::Sql_Back_End back_end(kestrel::default_catalog_place());
  ASSERT_EQ(Catalog_Status::done, back_end.commit(record, true, warning, error)) << error;
  const json_spirit::Object row = rows({{"uuid", "u1"}}, "oscar").at(0).get_obj();
  EXPECT_TRUE(find_value(row, "seq").is_null()) << "and it is not shown as 0";
  EXPECT_TRUE(find_value(row, "pool_uuid").is_null());
}

TEST_F(Catalog_Commit, the_two_sets_of_one_second_keep_their_order)
{
  ASSERT_TRUE(commit(make_set("first", "full", "", "", 900)));
  ASSERT_TRUE(commit(make_set("second", "full", "", "", 900)));
  const Query newest = {{"resource_uuid", "resource-1"}, {"sort", "backup_start_time"}, {"order", "desc"}};
  EXPECT_EQ("second", find_value(rows(newest).at(0).get_obj(), "backup_id").get_str());
}

TEST_F(Catalog_Commit, threads_commit_and_read_together)
{
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([t] {
      for (int i = 0; i < 8; ++i) {
        EXPECT_TRUE(
            Catalog_Operator(-1, 60).commit(make_set(std::to_string(t) + "-" + std::to_string(i)), true));
        json_spirit::Value result;
        EXPECT_TRUE(Catalog_Operator(-1, 60).get_view("oscar_brcmd", "catalogs", {}, result));
      }
    });
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_EQ(32u, rows({}).size());
}

TEST_F(Catalog_Commit, administration_of_unknown_sets_fails_clearly)
{
  std::string error;
  std::vector<std::string> uuids = {"before"};
  EXPECT_FALSE(Catalog_Admin(0).remove("b1", error));
  EXPECT_EQ("There is no backup set 'b1' in the catalog", error);
  EXPECT_FALSE(Catalog_Admin(0).set_state("b1", kestrel::Set_State::unavailable, "", error));
  EXPECT_EQ("There is no backup set 'b1' in the catalog", error);
  EXPECT_FALSE(Catalog_Admin(0).dependents("b1", uuids, error));
  EXPECT_EQ(1u, uuids.size());
}

TEST_F(Catalog_Commit, removing_a_set_removes_all_of_it)
{
  Oscar_Backup_Set set = make_logical_set("u1", 1);
  set.add_file("DB", "", "", "/d/1");
  set.add_piece("set-1", 5);
  ASSERT_TRUE(commit(set));
  std::string error;
  ASSERT_TRUE(Catalog_Admin(0).remove("u1", error)) << error;
  EXPECT_TRUE(rows({}, "oscar").empty());
  uint64_t count = 9;
  ASSERT_TRUE(Catalog_Admin(0).count_by_pool("pool-2", count, error));
  EXPECT_EQ(0u, count);
  kestrel::Catalog_Database database(kestrel::default_catalog_place());
  for (const char* table : {"backup_set", "backup_set_storage", "backup_set_piece", "backup_set_file"}) {
    int left = -1;
    database.session() << "SELECT count(*) FROM " << table, soci::into(left);
    EXPECT_EQ(0, left) << table;
  }
  ASSERT_TRUE(commit(set)) << "the uuid is free again";
}

TEST_F(Catalog_Commit, a_held_catalog_is_complete_for_others_and_after_its_end)
{
  if (::getenv("KESTREL_TEST_POSTGRESQL"))
    GTEST_SKIP() << "there is no file to hold";
  const auto place = kestrel::default_catalog_place();
  std::string warning, error;
  {
    kestrel::Sql_Back_End held(place, true);
    ASSERT_EQ(kestrel::Catalog_Status::done, held.commit(make_set("a").record(), true, warning, error)) << error;
    EXPECT_TRUE(kestrel_test::exists(catalog_path() + "-wal")) << "nobody holds it";
    EXPECT_EQ("a", ids({}));
    ASSERT_TRUE(commit(make_set("b")));
    json_spirit::Value result;
    ASSERT_EQ(kestrel::Catalog_Status::done, held.get_view("oscar_brcmd", "catalogs", {}, result, error));
    EXPECT_EQ(2u, json_spirit::find_value(result.get_obj(), "rows").get_array().size());
  }
  EXPECT_FALSE(kestrel_test::exists(catalog_path() + "-wal"));
  EXPECT_EQ("a b", ids({}));
}

TEST_F(Catalog_Commit, counts_the_sets_of_a_pool)
{
  ASSERT_TRUE(commit(make_set("b1")));
  Oscar_Brcmd_Backup_Set set = make_set("b2");
  set.add_storage(Backup_Set_Storage("pool-9", 1));
  set.add_storage(Backup_Set_Storage("pool-9", 2));
  ASSERT_TRUE(commit(set));
  uint64_t count = 0;
  std::string error;
  ASSERT_TRUE(Catalog_Admin(0).count_by_pool("pool-1", count, error));
  EXPECT_EQ(2u, count);
  ASSERT_TRUE(Catalog_Admin(0).count_by_pool("pool-9", count, error));
  EXPECT_EQ(1u, count) << "a set counts once";
  ASSERT_TRUE(Catalog_Admin(0).count_by_pool("pool-0", count, error));
  EXPECT_EQ(0u, count);
}

TEST(Minor_Resource_Id, is_stable_and_tells_all_pairs_apart)
{
  std::string one, same, other, swapped;
  ASSERT_TRUE(compute_minor_resource_id("r1", "oscar_brcmd_backup_set", one));
  ASSERT_TRUE(compute_minor_resource_id("r1", "oscar_brcmd_backup_set", same));
  ASSERT_TRUE(compute_minor_resource_id("r1o", "scar_brcmd_backup_set", other));
  ASSERT_TRUE(compute_minor_resource_id("oscar_brcmd_backup_set", "r1", swapped));
  EXPECT_EQ(one, same);
  EXPECT_EQ(32u, one.size());
  EXPECT_NE(one, other);
  EXPECT_NE(one, swapped);
}

TEST(Minor_Resource_Id, needs_both_parts)
{
  std::string id = "before";
  EXPECT_FALSE(compute_minor_resource_id("", "t", id));
  EXPECT_FALSE(compute_minor_resource_id("r", "", id));
  EXPECT_EQ("before", id);
}

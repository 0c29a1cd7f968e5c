#include "agent/backup_catalog.h"

#include "catalog/catalog_admin.h"
#include "catalog/catalog_database.h"
#include "catalog/catalog_operator.h"
#include "catalog/sql_back_end.h"
#include "support/log_capture.h"
#include "support/scoped_env.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

using namespace kestrel;

namespace
{
/// The chain F, I1, I2 and D on F, of resource R, in a catalog of its own.
class Backup_Catalog : public ::testing::Test
{
protected:
  void SetUp() override
  {
    commit("F", "full", "F", 100);
    commit("I1", "incr", "F", 200);
    commit("I2", "incr", "I1", 300);
    commit("D", "diff", "I2", 400);
  }
  void commit(const std::string& id, const std::string& level, const std::string& last, time_t time)
  {
    Oscar_Brcmd_Backup_Set set;
    set.set_uuid(id);
    set.set_backup_id(id);
    set.set_type(level);
    set.set_resource_uuid("R");
    set.set_uri("R");
    set.set_last_backup_id(last);
    set.set_last_full_backup_id("F");
    set.set_full_backup_id("F");
    set.set_backup_file(id + ".zst");
    set.set_backup_set_size(1000);
    set.set_start_time(time);
    set.add_storage(Backup_Set_Storage("P", 500));
    ASSERT_TRUE(Catalog_Operator(-1, 0).commit(set, true));
  }
  Backup_Entry find(const std::string& id)
  {
    Backup_Entry backup;
    EXPECT_TRUE(resolve_backup(id, "", backup, error_)) << error_;
    return backup;
  }
  static std::string ids(const std::vector<Backup_Entry>& backups)
  {
    std::string text;
    for (const Backup_Entry& backup : backups)
      text += (text.empty() ? "" : " ") + backup.id;
    return text;
  }
  std::string sequence(const std::string& id)
  {
    std::vector<Backup_Entry> backups;
    EXPECT_TRUE(backup_sequence(find(id), backups, problem_, error_)) << error_;
    return ids(backups);
  }

  kestrel_test::Temp_Dir root_;
  kestrel_test::Scoped_Env environment_{"KESTREL_ROOT", root_.path()};
  kestrel_test::Log_Capture log_;
  std::string problem_;
  std::string error_;
};
} // namespace

TEST_F(Backup_Catalog, knows_parents_and_children)
{
  const Backup_Entry full = find("F");
  EXPECT_EQ("", full.predecessor_id);
  EXPECT_EQ((std::vector<std::string>{"I1", "D"}), full.children);
  EXPECT_EQ(1u, full.chain_length);
  const Backup_Entry incremental = find("I2");
  EXPECT_EQ("I1", incremental.predecessor_id);
  EXPECT_EQ("F", incremental.full_backup_id);
  EXPECT_TRUE(incremental.children.empty());
  EXPECT_EQ(3u, incremental.chain_length);
  EXPECT_EQ("F", find("D").predecessor_id);
}

TEST_F(Backup_Catalog, gives_what_a_restore_reads_in_order)
{
  EXPECT_EQ("F I1 I2", sequence("I2"));
  EXPECT_EQ("F D", sequence("D"));
  EXPECT_EQ("", problem_);
}

TEST_F(Backup_Catalog, knows_what_is_being_deleted_and_keeps_it_from_becoming_available)
{
  EXPECT_FALSE(find("I2").deleting);
  ASSERT_TRUE(Catalog_Admin(0).set_state("I2", Set_State::deleting, "its deletion has begun", error_)) << error_;
  for (const Set_State found_out : {Set_State::available, Set_State::unavailable}) {
    EXPECT_FALSE(Catalog_Admin(0).set_state("I2", found_out, "", error_));
    EXPECT_NE(std::string::npos, error_.find("delete it again to finish that")) << error_;
    const Backup_Entry backup = find("I2");
    EXPECT_TRUE(backup.deleting);
    EXPECT_FALSE(backup.available);
    EXPECT_EQ("its deletion has begun", backup.state_reason);
  }
  ASSERT_TRUE(Catalog_Admin(0).set_state("I2", Set_State::spared, "", error_)) << error_;
  EXPECT_TRUE(find("I2").available);
  EXPECT_FALSE(find("I2").deleting);
}

TEST_F(Backup_Catalog, says_where_a_chain_is_broken)
{
  ASSERT_TRUE(Catalog_Admin(0).set_state("I1", Set_State::unavailable, "it is cut", error_));
  EXPECT_EQ("", sequence("I2"));
  EXPECT_NE(std::string::npos, problem_.find("I1")) << problem_;
  EXPECT_NE(std::string::npos, problem_.find("it is cut")) << problem_;
  const Backup_Entry broken = find("I2");
  EXPECT_TRUE(broken.available);
  EXPECT_EQ(0u, broken.chain_length);
  EXPECT_EQ(problem_, broken.chain_problem);
  EXPECT_EQ("F D", sequence("D"));
}

TEST_F(Backup_Catalog, goes_through_unusable_members_of_a_known_chain)
{
  ASSERT_TRUE(Catalog_Admin(0).set_state("I1", Set_State::unavailable, "", error_));
  std::vector<Backup_Entry> backups;
  ASSERT_TRUE(known_chain(find("I2"), backups, error_)) << error_;
  EXPECT_EQ("F I1 I2", ids(backups));
}

TEST_F(Backup_Catalog, a_known_chain_begins_after_a_gap)
{
  ASSERT_TRUE(Catalog_Admin(0).remove("I1", error_));
  std::vector<Backup_Entry> backups;
  ASSERT_TRUE(known_chain(find("I2"), backups, error_)) << error_;
  EXPECT_EQ("I2", ids(backups));
  EXPECT_TRUE(backups.front().predecessor_missing);
}

TEST_F(Backup_Catalog, the_last_committed_backup_may_have_an_older_time)
{
  commit("I3", "incr", "D", 50);
  std::vector<Backup_Entry> last;
  ASSERT_TRUE(last_committed_backup("R", last, error_)) << error_;
  EXPECT_EQ("I3", ids(last));
  EXPECT_EQ(3u, last.front().chain_length);
  ASSERT_TRUE(last_committed_backup("S", last, error_)) << error_;
  EXPECT_EQ("", ids(last));
}

TEST_F(Backup_Catalog, lists_the_others_beside_one_whose_record_is_damaged)
{
  log_.allow(LM_WARNING, "record of backup I1 is damaged");
  {
    Catalog_Database database(default_catalog_place());
    database.session() << "UPDATE backup_set SET uri = NULL WHERE uuid = 'I1'";
  }
  std::vector<Backup_Entry> backups;
  ASSERT_TRUE(list_backups({}, 0, backups, error_)) << error_;
  ASSERT_EQ("D I2 I1 F", ids(backups));
  EXPECT_TRUE(log_.contains("record of backup I1 is damaged"));
  const Backup_Entry& damaged = backups[2];
  EXPECT_FALSE(damaged.available);
  EXPECT_NE(std::string::npos, damaged.damage.find("uri")) << damaged.damage;
  EXPECT_EQ("F", damaged.predecessor_id) << "it keeps its place in the chain";
  EXPECT_EQ(0u, damaged.chain_length);
  EXPECT_NE(std::string::npos, damaged.chain_problem.find(damaged.damage)) << damaged.chain_problem;
  EXPECT_TRUE(backups[0].available);
  EXPECT_EQ(2u, backups[0].chain_length);
}

TEST_F(Backup_Catalog, gives_nothing_to_restore_where_a_record_of_the_chain_is_damaged)
{
  log_.allow(LM_WARNING, "record of backup I1 is damaged");
  {
    Catalog_Database database(default_catalog_place());
    database.session() << "UPDATE backup_set SET backup_file = NULL WHERE uuid = 'I1'";
  }
  EXPECT_EQ("", sequence("I2"));
  EXPECT_NE(std::string::npos, problem_.find("Backup I1 is not available: its record")) << problem_;
  EXPECT_EQ("", sequence("I1"));
  EXPECT_NE(std::string::npos, problem_.find("Backup I1 is not available: its record")) << problem_;
  EXPECT_EQ("F D", sequence("D"));
  EXPECT_EQ("", problem_);
}

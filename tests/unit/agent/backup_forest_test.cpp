#include "agent/backup_forest.h"

#include <gtest/gtest.h>

using namespace kestrel;

namespace
{
Backup_Entry make_entry(const std::string& id, const std::string& predecessor = "",
                        const std::string& resource = "R")
{
  Backup_Entry backup;
  backup.id = id;
  backup.resource_uuid = resource;
  backup.predecessor_id = predecessor;
  return backup;
}

std::string order_of(const std::vector<Backup_Entry>& newest_first)
{
  std::string text;
  for (const size_t position : Backup_Forest(newest_first).restore_order())
    text += (text.empty() ? "" : " ") + newest_first[position].id;
  return text;
}
} // namespace

TEST(Backup_Forest, visits_each_backup_after_the_one_that_it_builds_on)
{
  EXPECT_EQ("F I1 I2 D I3", order_of({make_entry("I3", "D"), make_entry("D", "F"), make_entry("I2", "I1"),
                                      make_entry("I1", "F"), make_entry("F")}));
}

TEST(Backup_Forest, does_not_rely_on_the_clock)
{
  EXPECT_EQ("F I1 I2", order_of({make_entry("F"), make_entry("I1", "F"), make_entry("I2", "I1")}));
}

TEST(Backup_Forest, begins_with_the_tree_of_the_newest_backup)
{
  EXPECT_EQ("F1 I2 F2 F0",
            order_of({make_entry("I2", "F1"), make_entry("F2"), make_entry("F1"), make_entry("F0")}));
}

TEST(Backup_Forest, a_backup_on_something_unknown_is_a_root)
{
  const std::vector<Backup_Entry> backups = {make_entry("I2", "I1"), make_entry("I1", "gone")};
  const Backup_Forest forest(backups);
  ASSERT_EQ(std::vector<size_t>{1}, forest.roots);
  EXPECT_EQ(Backup_Forest::none, forest.parents[1]);
  EXPECT_EQ(1u, forest.parents[0]);
  EXPECT_FALSE(forest.circular[1]);
}

TEST(Backup_Forest, keeps_resources_apart)
{
  const std::vector<Backup_Entry> backups = {make_entry("I", "F", "B"), make_entry("F", "", "A")};
  EXPECT_EQ((std::vector<size_t>{0, 1}), Backup_Forest(backups).roots);
}

TEST(Backup_Forest, a_circle_begins_at_its_oldest_member)
{
  const std::vector<Backup_Entry> backups = {make_entry("C", "B"), make_entry("B", "A"),
                                             make_entry("A", "C")};
  const Backup_Forest forest(backups);
  EXPECT_EQ(std::vector<size_t>{2}, forest.roots);
  EXPECT_TRUE(forest.circular[2]);
  EXPECT_EQ("A B C", order_of(backups));
}

TEST(Backup_Forest, a_backup_on_itself_is_a_circle)
{
  const std::vector<Backup_Entry> backups = {make_entry("A", "A")};
  const Backup_Forest forest(backups);
  EXPECT_EQ(std::vector<size_t>{0}, forest.roots);
  EXPECT_TRUE(forest.circular[0]);
}

TEST(Backup_Forest, is_empty_for_an_empty_list)
{
  EXPECT_TRUE(Backup_Forest({}).roots.empty());
  EXPECT_EQ("", order_of({}));
}

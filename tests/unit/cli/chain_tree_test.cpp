#include "cli/chain_tree.h"

#include "support/scoped_env.h"

#include <gtest/gtest.h>

#include <algorithm>

using namespace kestrel;

namespace
{
/// Backups named in the order in which they were made; newest first is the order of lists.
class Chain_Tree : public ::testing::Test
{
protected:
  void add(const std::string& id, const std::string& predecessor = "", const std::string& full = "",
           const std::string& resource = "R")
  {
    Backup_Entry backup;
    backup.id = id;
    backup.resource_uuid = resource;
    backup.predecessor_id = predecessor;
    backup.full_backup_id = full.empty() ? id : full;
    backup.available = true;
    backup.chain_length = 1;
    for (const Backup_Entry& known : backups_)
      if (known.id == predecessor)
        backup.chain_length = known.chain_length + 1;
    backups_.insert(backups_.begin(), backup);
  }
  /// The drawing of the newest `limit` (0 = all); without the line for resource R.
  std::string drawn(Tree_Style style = Tree_Style::utf8, size_t limit = 0) const
  {
    std::vector<Backup_Entry> page = backups_;
    if (limit)
      page.resize(limit);
    std::string text;
    for (const Tree_Line& line : draw_chains(page, style))
      if (line.kind != Tree_Line::Kind::resource || line.text != "R")
        text += line.text + (line.kind == Tree_Line::Kind::backup ? page[line.backup].id : "") + "\n";
    return text;
  }
  std::vector<Backup_Entry> backups_;
};
} // namespace

TEST_F(Chain_Tree, puts_what_continues_a_backup_straight_below_it)
{
  add("F");
  add("I1", "F", "F");
  add("I2", "I1", "F");
  add("I3", "I2", "F");
  EXPECT_EQ("F\n"
            "└┬ I1\n"
            " ├ I2\n"
            " └ I3\n",
            drawn());
}

TEST_F(Chain_Tree, begins_a_branch_for_each_backup_that_continues_the_full_one)
{
  add("F");
  add("I1", "F", "F");
  add("I2", "I1", "F");
  add("D1", "F", "F");
  add("I3", "D1", "F");
  add("D2", "F", "F");
  EXPECT_EQ("F\n"
            "├┬ I1\n"
            "│└ I2\n"
            "├┬ D1\n"
            "│└ I3\n"
            "└─ D2\n",
            drawn());
}

TEST_F(Chain_Tree, branches_below_a_branch_stand_further_right)
{
  add("F");
  add("I1", "F", "F");
  add("X1", "I1", "F");
  add("X2", "I1", "F");
  add("X3", "X2", "F");
  add("D", "F", "F");
  EXPECT_EQ("F\n"
            "├─ I1\n"
            "│  ├─ X1\n"
            "│  └┬ X2\n"
            "│   └ X3\n"
            "└─ D\n",
            drawn());
}

TEST_F(Chain_Tree, puts_the_newest_chain_first)
{
  add("F1");
  add("I1", "F1", "F1");
  add("F2");
  EXPECT_EQ("F2\n"
            "F1\n"
            "└─ I1\n",
            drawn());
}

TEST_F(Chain_Tree, keeps_the_chains_of_one_resource_together)
{
  add("A1", "", "", "A");
  add("B1", "", "", "B");
  add("A2", "", "", "A");
  add("B2", "B1", "B1", "B");
  EXPECT_EQ("B\n"
            "B1\n"
            "└─ B2\n"
            "A\n"
            "A2\n"
            "A1\n",
            drawn());
}

TEST_F(Chain_Tree, the_same_id_in_two_resources_is_two_backups)
{
  add("F", "", "", "A");
  add("F", "", "", "B");
  add("I", "F", "F", "A");
  EXPECT_EQ("A\n"
            "F\n"
            "└─ I\n"
            "B\n"
            "F\n",
            drawn());
}

TEST_F(Chain_Tree, a_page_says_what_its_oldest_chain_begins_with)
{
  add("F");
  add("I1", "F", "F");
  add("I2", "I1", "F");
  add("I3", "I2", "F");
  add("I4", "I3", "F");
  EXPECT_EQ("⋮ 3 older not shown, from full F on\n"
            "└┬ I3\n"
            " └ I4\n",
            drawn(Tree_Style::utf8, 2));
}

TEST_F(Chain_Tree, a_page_that_cuts_several_branches_of_a_chain_shows_one_chain)
{
  add("F");
  add("I1", "F", "F");
  add("I2", "I1", "F");
  add("D", "F", "F");
  add("I3", "D", "F");
  EXPECT_EQ("⋮ older not shown, from full F on\n"
            "├─ I2\n"
            "└┬ D\n"
            " └ I3\n",
            drawn(Tree_Style::utf8, 3));
}

TEST_F(Chain_Tree, says_that_a_predecessor_is_not_in_the_catalog)
{
  add("F");
  add("I2", "I1", "F");
  backups_.front().predecessor_missing = true;
  add("I3", "I2", "F");
  EXPECT_EQ("? builds on I1, which is not in the catalog\n"
            "└┬ I2\n"
            " └ I3\n"
            "F\n",
            drawn());
}

TEST_F(Chain_Tree, shows_backups_that_build_on_each_other_in_a_circle)
{
  add("A", "B", "A");
  add("B", "A", "A");
  add("C", "C", "C");
  EXPECT_EQ("? builds on C, which builds on it\n"
            "└─ C\n"
            "? builds on B, which builds on it\n"
            "└┬ A\n"
            " └ B\n",
            drawn());
}

TEST_F(Chain_Tree, needs_no_utf8)
{
  add("F");
  add("I1", "F", "F");
  add("I2", "I1", "F");
  add("D", "F", "F");
  EXPECT_EQ("F\n"
            "++ I1\n"
            "|` I2\n"
            "`- D\n",
            drawn(Tree_Style::ascii));
}

TEST_F(Chain_Tree, a_long_chain_does_not_move_to_the_right)
{
  add("0");
  for (int number = 1; number < 100; ++number)
    add(std::to_string(number), std::to_string(number - 1), "0");
  const std::vector<Tree_Line> lines = draw_chains(backups_, Tree_Style::utf8);
  ASSERT_EQ(101u, lines.size());
  EXPECT_EQ(99u, lines[1].backup);
  EXPECT_EQ(0u, lines.back().backup);
  EXPECT_LE(lines.back().text.size(), 6u) << "it does not move to the right";
}

TEST_F(Chain_Tree, an_empty_list_draws_nothing)
{
  EXPECT_EQ("", drawn());
}

TEST(Tree_Style, follows_the_locale)
{
  const kestrel_test::Scoped_Env all("LC_ALL", "");
  const kestrel_test::Scoped_Env ctype("LC_CTYPE", "de_DE.UTF-8");
  EXPECT_EQ(Tree_Style::utf8, tree_style_of_locale());
  const kestrel_test::Scoped_Env plain("LC_ALL", "C");
  EXPECT_EQ(Tree_Style::ascii, tree_style_of_locale());
  const kestrel_test::Scoped_Env c_utf8("LC_ALL", "C.utf8");
  EXPECT_EQ(Tree_Style::utf8, tree_style_of_locale());
}

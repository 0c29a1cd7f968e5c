#include "agent/chain_verifier.h"

#include <gtest/gtest.h>

#include <map>

using namespace kestrel;

namespace
{
using Outcome = Chain_Verification::Outcome;

class Chain_Verifier : public ::testing::Test
{
protected:
  void add(const std::string& id, const std::string& level, const std::string& predecessor = "")
  {
    Backup_Entry backup;
    backup.id = id;
    backup.level = level;
    backup.resource_uuid = "R";
    backup.predecessor_id = predecessor;
    backups_.insert(backups_.begin(), backup);
  }
  void add_tree()
  {
    add("F", "full");
    add("I1", "incr", "F");
    add("I2", "incr", "I1");
    add("D", "diff", "F");
    add("I3", "incr", "D");
  }
  /// "ID:outcome problem" of each, in the order of the walk.
  std::vector<std::string> verified(size_t stop_after = 0)
  {
    std::vector<std::string> lines;
    for (const Chain_Verification& result : verify_chains(
             backups_,
             [this](const Backup_Entry& backup) {
               ++reads_[backup.id];
               Verification file;
               file.outcome = files_.count(backup.id) ? files_[backup.id] : Verification::Outcome::good;
               file.problem = file.outcome == Verification::Outcome::good ? "" : "bad file";
               return file;
             },
             [&](const Chain_Verification&) { return stop_after == 0 || --stop_after > 0; })) {
      static const char* const names[] = {"good", "damaged", "no_chain", "unknown"};
      lines.push_back(result.backup.id + ":" + names[static_cast<int>(result.outcome)] +
                      (result.problem.empty() ? "" : " " + result.problem));
    }
    return lines;
  }
  typedef std::vector<std::string> Lines;
  std::vector<Backup_Entry> backups_;
  std::map<std::string, Verification::Outcome> files_;
  std::map<std::string, int> reads_;
};
} // namespace

TEST_F(Chain_Verifier, reads_every_file_once_in_the_order_of_restores)
{
  add_tree();
  EXPECT_EQ((Lines{"F:good", "I1:good", "I2:good", "D:good", "I3:good"}), verified());
  for (const auto& read : reads_)
    EXPECT_EQ(1, read.second) << read.first;
}

TEST_F(Chain_Verifier, what_builds_on_damage_cannot_be_restored)
{
  add_tree();
  files_["I1"] = Verification::Outcome::damaged;
  EXPECT_EQ((Lines{"F:good", "I1:damaged bad file", "I2:no_chain builds on I1, which is damaged", "D:good",
                   "I3:good"}),
            verified());
}

TEST_F(Chain_Verifier, damage_further_back_counts_too)
{
  add("F", "full");
  add("I1", "incr", "F");
  add("I2", "incr", "I1");
  files_["F"] = Verification::Outcome::damaged;
  EXPECT_EQ((Lines{"F:damaged bad file", "I1:no_chain builds on F, which is damaged",
                   "I2:no_chain builds on I1, which cannot be restored"}),
            verified());
}

TEST_F(Chain_Verifier, a_damaged_file_is_called_damaged_whatever_it_builds_on)
{
  add("F", "full");
  add("I1", "incr", "F");
  files_["F"] = files_["I1"] = Verification::Outcome::damaged;
  EXPECT_EQ((Lines{"F:damaged bad file", "I1:damaged bad file"}), verified());
}

TEST_F(Chain_Verifier, flags_a_set_whose_predecessor_is_not_known)
{
  add("I2", "incr", "I1");
  add("I3", "incr", "I2");
  EXPECT_EQ((Lines{"I2:no_chain builds on I1, which is not in the catalog",
                   "I3:no_chain builds on I2, which cannot be restored"}),
            verified());
}

TEST_F(Chain_Verifier, judges_nothing_by_what_it_could_not_read)
{
  add("F", "full");
  add("I1", "incr", "F");
  add("I2", "incr", "I1");
  files_["F"] = Verification::Outcome::unknown;
  EXPECT_EQ((Lines{"F:unknown bad file", "I1:unknown builds on F, which was not verified",
                   "I2:unknown builds on I1, which was not verified"}),
            verified());
}

TEST_F(Chain_Verifier, a_differential_set_needs_a_full_one)
{
  add("F", "full");
  add("I1", "incr", "F");
  add("D", "diff", "I1");
  EXPECT_EQ((Lines{"F:good", "I1:good", "D:no_chain builds on I1, which is not a full backup"}), verified());
}

TEST_F(Chain_Verifier, no_member_of_a_circle_can_be_restored)
{
  add("A", "incr", "B");
  add("B", "incr", "A");
  EXPECT_EQ((Lines{"A:no_chain builds on B, which builds on it",
                   "B:no_chain builds on A, which cannot be restored"}),
            verified());
}

TEST_F(Chain_Verifier, ends_where_it_is_told_to)
{
  add_tree();
  EXPECT_EQ((Lines{"F:good", "I1:good"}), verified(2));
  EXPECT_EQ(2u, reads_.size());
}

TEST_F(Chain_Verifier, has_nothing_to_say_of_nothing)
{
  EXPECT_TRUE(verified().empty());
}

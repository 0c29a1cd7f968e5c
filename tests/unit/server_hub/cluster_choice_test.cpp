#include "server/cluster_choice.h"

#include <gtest/gtest.h>

using kestrel::choose_node;
using kestrel::Node_Candidate;
using kestrel::Node_Choice;
using kestrel::Node_Wish;

namespace
{
Node_Candidate node(int id)
{
  Node_Candidate candidate;
  candidate.host_uuid = "host-" + std::to_string(id);
  candidate.host_name = "db" + std::to_string(id);
  candidate.connected = candidate.asked = candidate.answered = candidate.online = true;
  candidate.node_id = id;
  return candidate;
}

Node_Candidate master(int id)
{
  Node_Candidate candidate = node(id);
  candidate.is_master = true;
  return candidate;
}

Node_Candidate silent(int id)
{
  Node_Candidate candidate = node(id);
  candidate.answered = false;
  candidate.node_id = -1;
  candidate.problem = "its agent did not answer in time";
  return candidate;
}

Node_Wish backup(bool select_master = false)
{
  Node_Wish wish;
  wish.backup = true;
  wish.select_master = select_master;
  return wish;
}

Node_Wish restore()
{
  Node_Wish wish;
  wish.select_master = true;
  return wish;
}

void expect_chosen(const Node_Choice& choice, int node_id, const std::string& reason)
{
  EXPECT_TRUE(choice.success) << choice.reason;
  EXPECT_EQ(choice.node_id, node_id);
  EXPECT_EQ(choice.host_uuid, "host-" + std::to_string(node_id));
  EXPECT_NE(choice.reason.find(reason), std::string::npos) << choice.reason;
}

void expect_nobody(const Node_Choice& choice, const std::string& reason)
{
  EXPECT_FALSE(choice.success);
  EXPECT_EQ(choice.node_id, -1);
  EXPECT_EQ(choice.host_uuid, "");
  EXPECT_NE(choice.reason.find(reason), std::string::npos) << choice.reason;
}
} // namespace

TEST(Cluster_Choice, the_fewest_jobs_go_before_everything)
{
  Node_Candidate busy = node(1), idle = node(9);
  busy.running_jobs = 2;
  idle.running_jobs = 1;
  idle.last_chosen = 50;
  expect_chosen(choose_node({busy, idle}, backup()), 9, "fewest jobs running (1)");
}

TEST(Cluster_Choice, of_equally_busy_nodes_the_one_not_chosen_for_longest)
{
  Node_Candidate recent = node(1), former = node(2);
  recent.last_chosen = 12;
  former.last_chosen = 11;
  expect_chosen(choose_node({recent, former}, backup()), 2, "not been chosen for longest");
  former.last_chosen = 0;
  expect_chosen(choose_node({recent, former}, backup()), 2, "not been chosen for longest");
}

TEST(Cluster_Choice, the_lowest_node_id_decides_last_whatever_the_order)
{
  expect_chosen(choose_node({node(3), node(2), node(5)}, backup()), 2, "lowest node id");
  expect_chosen(choose_node({node(2), node(5), node(3)}, backup()), 2, "lowest node id");
}

TEST(Cluster_Choice, a_lone_node_is_chosen_as_such)
{
  expect_chosen(choose_node({node(4), silent(1)}, backup()), 4, "only node");
}

TEST(Cluster_Choice, the_master_is_chosen_when_it_is_wanted)
{
  Node_Candidate busy = master(7);
  busy.running_jobs = 40;
  expect_chosen(choose_node({node(1), busy}, backup(true)), 7, "it is the master");
  expect_chosen(choose_node({node(1), busy}, restore()), 7, "it is the master");
}

TEST(Cluster_Choice, the_master_has_no_advantage_when_it_is_not_wanted)
{
  expect_chosen(choose_node({node(1), master(7)}, backup()), 1, "lowest node id");
}

TEST(Cluster_Choice, a_backup_without_a_master_goes_to_another_node)
{
  expect_chosen(choose_node({node(3), node(2)}, backup(true)), 2, "the master is wanted but does not answer");
  Node_Candidate dead = master(1);
  dead.online = false;
  expect_chosen(choose_node({dead, node(3)}, backup(true)), 3, "only node");
}

TEST(Cluster_Choice, a_restore_without_a_master_goes_to_nobody)
{
  expect_nobody(choose_node({node(3), node(2)}, restore()), "no online node says that it is the master");
}

TEST(Cluster_Choice, a_job_of_unknown_kind_that_wants_the_master_counts_as_a_restore)
{
  Node_Wish unknown;
  unknown.select_master = true;
  expect_nobody(choose_node({node(3)}, unknown), "master");
  expect_chosen(choose_node({node(3)}, Node_Wish()), 3, "only node");
}

TEST(Cluster_Choice, two_masters_share_a_backup_and_stop_a_restore)
{
  expect_chosen(choose_node({master(3), master(2), node(1)}, backup(true)), 2, "2 nodes say");
  expect_nobody(choose_node({master(3), master(2)}, restore()), "2 nodes say that they are the master");
}

TEST(Cluster_Choice, nobody_can_when_none_is_online)
{
  Node_Candidate down = node(2);
  down.online = false;
  expect_nobody(choose_node({silent(1), down}, backup()), "none of 2 nodes is online");
  expect_nobody(choose_node({}, backup()), "none of 0 nodes is online");
}

TEST(Cluster_Choice, nodes_with_the_same_id_would_both_work_and_are_left_out)
{
  Node_Candidate twin = node(2);
  twin.host_uuid = "host-other";
  expect_chosen(choose_node({node(2), twin, node(3)}, backup()), 3, "only node");
  expect_nobody(choose_node({node(2), twin}, backup()), "2 nodes tell an id that another node tells too");
}

TEST(Cluster_Choice, a_backup_goes_only_to_a_node_whose_agent_runs_the_job)
{
  Node_Candidate quiet = node(1);
  quiet.asked = false;
  expect_chosen(choose_node({quiet, node(2)}, backup()), 2, "only node");
  expect_nobody(choose_node({quiet}, backup()), "no node that is online runs the job");
  Node_Candidate quiet_master = master(1);
  quiet_master.asked = false;
  expect_chosen(choose_node({quiet_master, node(2)}, backup(true)), 2, "the master is wanted");
}

TEST(Cluster_Choice, a_restore_waits_for_the_master_even_when_it_has_not_asked)
{
  Node_Candidate quiet_master = master(1);
  quiet_master.asked = false;
  expect_chosen(choose_node({quiet_master, node(2)}, restore()), 1, "has not asked yet");
}

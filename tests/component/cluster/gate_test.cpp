#include "cluster_fixture.h"
#include "oscar/cluster_gate.h"

using namespace kestrel_test;

class Cluster_Gate : public Cluster_Fixture
{
protected:
  static Job_Definition definition(const std::string& rsrc_form)
  {
    kestrel::Job_Definition_Fields fields;
    fields.id = JOB;
    fields.uid = UID;
    fields.rsrc_form = rsrc_form;
    return Job_Definition(fields);
  }

  Fake_Clock clock_;
  const Job_Definition cluster_job_ = definition("cluster");
};

TEST_F(Cluster_Gate, a_job_of_a_single_instance_asks_nobody)
{
  const Job_Definition job = definition("");
  EXPECT_TRUE(oscar::cluster_lets_backup_run(job, "DB1", true));
  EXPECT_TRUE(oscar::cluster_lets_restore_run(job, "NONE"));
  EXPECT_TRUE(server_->requests.empty());
}

TEST_F(Cluster_Gate, lets_the_chosen_node_run_and_asks_for_the_master_as_told)
{
  announce("success", 7);
  EXPECT_TRUE(oscar::cluster_lets_backup_run(cluster_job_, "DB1", true));
  announce("success", 7);
  EXPECT_TRUE(oscar::cluster_lets_backup_run(cluster_job_, "DB1", false));
  announce("success", 7);
  EXPECT_TRUE(oscar::cluster_lets_restore_run(cluster_job_, "DB1"));
  ASSERT_EQ(server_->requests.size(), 3u);
  EXPECT_NE(server_->requests[0].find("\"select_master\":true"), std::string::npos);
  EXPECT_NE(server_->requests[1].find("\"select_master\":false"), std::string::npos);
  EXPECT_NE(server_->requests[2].find("\"select_master\":true"), std::string::npos);
}

TEST_F(Cluster_Gate, tells_that_another_node_runs_the_job)
{
  announce("success", 8);
  EXPECT_FALSE(oscar::cluster_lets_backup_run(cluster_job_, "DB1", true));
  EXPECT_TRUE(log_.expect_exactly(LM_DEBUG, "This node is not selected to backup\n"));
  announce("success", 8);
  EXPECT_FALSE(oscar::cluster_lets_restore_run(cluster_job_, "DB1"));
  EXPECT_TRUE(log_.expect_exactly(LM_DEBUG, "This node is not selected to restore\n"));
}

TEST_F(Cluster_Gate, tells_that_nobody_runs_the_job)
{
  announce("failed", -1);
  EXPECT_FALSE(oscar::cluster_lets_backup_run(cluster_job_, "DB1", true));
  EXPECT_TRUE(log_.expect_exactly(LM_ERROR, "No node is selected to backup\n"));
  announce("failed", -1);
  EXPECT_FALSE(oscar::cluster_lets_restore_run(cluster_job_, "DB1"));
  EXPECT_TRUE(log_.expect_exactly(LM_ERROR, "No node is selected to restore\n"));
}

TEST_F(Cluster_Gate, tells_of_an_unexpected_state_and_of_none)
{
  announce("later", 7);
  EXPECT_FALSE(oscar::cluster_lets_backup_run(cluster_job_, "DB1", true));
  EXPECT_TRUE(log_.expect_exactly(LM_ERROR, "Wrong node selection state: later\n"));
  EXPECT_FALSE(oscar::cluster_lets_restore_run(cluster_job_, "DB1"));
  EXPECT_TRUE(log_.expect_exactly(LM_ERROR, "Wrong node selection state: \n"));
}

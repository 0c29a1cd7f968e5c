#include "agent_bench.h"

#include <gtest/gtest.h>

using namespace kestrel_test;

TEST(Agent_Jobs_Switch, ends_the_run_as_failed_before_its_work)
{
  Agent_Bench agent;
  agent.start();
  agent.sync_documents({agent.document(1, true)});
  const std::string run = agent.control(1, "run");
  ASSERT_TRUE(agent.wait_up(1));
  agent.bench.clock.stand_still(); // a script that waits here is not silent
  EXPECT_EQ(run, agent.control(1, "switch"));
  EXPECT_EQ("switching", agent.state(1));
  agent.let_go(1);
  EXPECT_EQ("error", text_of(agent.wait_ended(run), "state"));
  EXPECT_TRUE(agent.bench.rows().empty());
  EXPECT_TRUE(agent.bench.stored_files().empty());
}

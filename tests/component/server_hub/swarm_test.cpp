#include "server_fixture.h"

#include "support/paths.h"

#include <cstdlib>
#include <unistd.h>

using namespace kestrel_test;

namespace
{
class Swarm_Test : public Server_Fixture
{
protected:
  void SetUp() override
  {
    Server_Fixture::SetUp();
    // All agents come from one address here.
    config_.cluster_window_seconds = 3;
    config_.limits.connections_per_address = 512;
    stop();
    start();
  }
};
} // namespace

TEST_F(Swarm_Test, nothing_is_lost_with_50_agents_and_500_definitions)
{
  log_.allow(LM_WARNING, "Node selection of job"); // agents that went away at random
  log_.allow(LM_WARNING, "did not take its job definitions");
  const Temp_Dir work;
  for (int i = 10; i < 60; ++i) {
    std::string text, error;
    bool replaced = false;
    ASSERT_TRUE(kestrel::enroll_host("db" + std::to_string(i), text, replaced, error)) << error;
    work.write("enrollments/db" + std::to_string(i) + ".json", text, 0600);
  }
  enroll("any");
  json_spirit::Object sign_in;
  sign_in.emplace_back("user", "ada");
  sign_in.emplace_back("password", PASSWORD);
  const json_spirit::Value session = ask("POST", "/k2/r/sessions", kestrel::write_json(sign_in));
  const std::string token_file = work.write("token", member_text(session.get_obj(), "token"), 0600);
  const std::string command = bin_dir() + "/agent_swarm" + " --server " + url() + " --enrollments " +
                              (work / "enrollments") + " --token-file " + token_file +
                              " --agents 50 --definitions 500 --seconds 20 --server-pid " +
                              std::to_string(::getpid());
  EXPECT_EQ(std::system(command.c_str()), 0) << command;
}

#include "agent/agent_settings.h"

#include "support/scoped_env.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

using namespace kestrel;
using namespace kestrel_test;

namespace
{
Server_Key key_of(const std::string& host_uuid)
{
  Server_Key key;
  key.url = "https://backup.example:7480";
  key.host_uuid = host_uuid;
  key.name = "db1";
  key.access_key = std::string(64, 'a');
  return key;
}

class Agent_Settings_Test : public testing::Test
{
protected:
  /// With an agent.toml of this text.
  bool read(const std::string& config)
  {
    source_.config = root_.write("agent.toml", config);
    return read_agent_settings(source_, settings_, error_);
  }

  const Temp_Dir root_;
  const Scoped_Env env_{"KESTREL_ROOT", root_.path()};
  Agent_Settings_Source source_;
  Agent_Settings settings_;
  std::string error_;
};
} // namespace

TEST_F(Agent_Settings_Test, a_host_alone_has_its_name_of_the_network_and_no_key)
{
  source_.config = root_ / "missing.toml";
  ASSERT_TRUE(read_agent_settings(source_, settings_, error_)) << error_;
  EXPECT_EQ("", settings_.url);
  EXPECT_EQ("", settings_.access());
  EXPECT_FALSE(settings_.name().empty());
  ASSERT_TRUE(read("[agent]\nname = \"here\"\n")) << error_;
  EXPECT_EQ("here", settings_.name());
}

TEST_F(Agent_Settings_Test, the_command_line_goes_before_the_file_and_that_before_the_enrollment)
{
  Server_Key key = key_of("7d3a1c52-0000-4000-8000-000000000001");
  key.ca_pem = "-----BEGIN CERTIFICATE-----\nAAAA\n-----END CERTIFICATE-----\n";
  ASSERT_TRUE(keep_server_key(key, error_)) << error_;
  ASSERT_TRUE(read("")) << error_;
  EXPECT_EQ("https://backup.example:7480", settings_.url);
  EXPECT_EQ("db1", settings_.name());
  EXPECT_EQ(key.ca_pem, settings_.tls().ca_pem);
  EXPECT_EQ("7d3a1c52-0000-4000-8000-000000000001." + std::string(64, 'a'), settings_.access());
  const std::string config = "[agent]\nname = \"other\"\n[server]\nurl = \"https://second:7480\"\n";
  ASSERT_TRUE(read(config)) << error_;
  EXPECT_EQ("https://second:7480", settings_.url);
  EXPECT_EQ("other", settings_.name());
  source_.server_url = "https://third:7480";
  ASSERT_TRUE(read(config)) << error_;
  EXPECT_EQ("https://third:7480", settings_.url);
}

TEST_F(Agent_Settings_Test, what_cannot_work_is_refused_and_changes_nothing)
{
  settings_.url = "untouched";
  EXPECT_FALSE(read("[server]\nurl = \"https://backup.example:7480\"\n"));
  EXPECT_NE(std::string::npos, error_.find("not enrolled at https://backup.example:7480")) << error_;
  source_.server_url = "backup.example";
  EXPECT_FALSE(read(""));
  EXPECT_NE(std::string::npos, error_.find("https://HOST:PORT")) << error_;
  EXPECT_FALSE(read("[agent\n"));
  EXPECT_EQ("untouched", settings_.url);
}

TEST_F(Agent_Settings_Test, an_agent_goes_on_with_another_server_but_not_as_another_host)
{
  Agent_Settings now;
  now.key = key_of("host-1");
  now.url = now.key.url;
  Agent_Settings next = now;
  EXPECT_TRUE(now.can_become(next, error_)) << error_;
  EXPECT_TRUE(now.same_connection(next));
  next.url = "https://second:7480";
  EXPECT_FALSE(now.same_connection(next));
  EXPECT_TRUE(now.can_become(next, error_)) << error_;
  next.config.ca_file = root_ / "missing.pem";
  EXPECT_FALSE(now.can_become(next, error_));
  EXPECT_NE(std::string::npos, error_.find("no connection to https://second:7480 could be made")) << error_;
  next = now;
  next.key = key_of("host-2");
  EXPECT_FALSE(now.can_become(next, error_));
  EXPECT_NE(std::string::npos, error_.find("now enrolled as db1 (host-2); restart the agent")) << error_;
  next.key = Server_Key();
  EXPECT_FALSE(now.can_become(next, error_));
  EXPECT_NE(std::string::npos, error_.find("not enrolled any more")) << error_;
  now.key = Server_Key();
  next.key = key_of("host-1");
  EXPECT_FALSE(now.can_become(next, error_));
  EXPECT_NE(std::string::npos, error_.find("was enrolled at https://backup.example:7480")) << error_;
}

#include "agent/agent_config.h"
#include "support/paths.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

using namespace kestrel;

namespace
{
/// All but the modules.
const std::string every_setting = R"([agent]
name = "db1"
log_level = "debug"
[server]
url = "https://backup.example:7480"
ca_file = "/etc/ca.pem"
[instances]
probe_minutes = 5
[jobs]
max_concurrent = 7
history_days = 30
stop = "cancel"
stop_seconds = 0
)";

Agent_Config parsed(const std::string& text)
{
  Agent_Config config;
  std::string error;
  EXPECT_TRUE(parse_agent_config(text, "agent.toml", config, error)) << error;
  return config;
}

std::string refusal(const std::string& text)
{
  Agent_Config config;
  config.name = "untouched";
  std::string error;
  EXPECT_FALSE(parse_agent_config(text, "agent.toml", config, error)) << text;
  EXPECT_EQ("untouched", config.name);
  return error;
}

void expect_part(const std::string& part, const std::string& text)
{
  EXPECT_NE(std::string::npos, text.find(part)) << text;
}
} // namespace

TEST(Agent_Config, a_missing_file_gives_the_defaults)
{
  const kestrel_test::Temp_Dir dir;
  Agent_Config config;
  std::string error;
  ASSERT_TRUE(load_agent_config(dir / "agent.toml", config, error)) << error;
  EXPECT_EQ(2u, config.max_concurrent);
  EXPECT_EQ(90u, config.history_days);
  EXPECT_EQ(10u, config.probe_minutes);
  EXPECT_EQ(300u, config.stop_seconds);
  EXPECT_FALSE(config.cancel_at_stop);
  ASSERT_EQ(1u, config.modules.size());
  EXPECT_EQ(3u, config.modules[0].rpc.size());
  EXPECT_EQ("JSON_RPC_Oscar_Node_Handler", config.modules[0].rpc.at("oscar.node.check_state").factory);
}

TEST(Agent_Config, an_unreadable_file_is_an_error)
{
  const kestrel_test::Temp_Dir dir;
  dir.make_dir("agent.toml");
  Agent_Config config;
  std::string error;
  EXPECT_FALSE(load_agent_config(dir / "agent.toml", config, error));
  expect_part(dir / "agent.toml", error);
}

TEST(Agent_Config, reads_every_key)
{
  const Agent_Config config = parsed(every_setting + R"([[module]]
name = "one"
path = "/opt/one.so"
[module.rpc]
"one.list" = "One_List"
[module.jobs]
backup = "One_Creator -v  fast"
"backup/export" = ["One_Export_Creator", "a word"]
[module.source_parsers]
backup = "One_Source"
[module.options_parsers]
backup = "One_Options"
[module.instances]
handler = "One_Instances --home /opt/one"
[[module]]
name = "two"
path = "two.so"
)");
  EXPECT_EQ("db1", config.name);
  EXPECT_EQ(LM_DEBUG, config.log_level);
  EXPECT_EQ("https://backup.example:7480", config.server_url);
  EXPECT_EQ("/etc/ca.pem", config.ca_file);
  EXPECT_EQ(5u, config.probe_minutes);
  EXPECT_EQ(7u, config.max_concurrent);
  EXPECT_EQ(30u, config.history_days);
  EXPECT_TRUE(config.cancel_at_stop);
  EXPECT_EQ(0u, config.stop_seconds);
  ASSERT_EQ(2u, config.modules.size());
  const Module_Config& one = config.modules[0];
  EXPECT_EQ("/opt/one.so", one.path);
  EXPECT_EQ("One_List", one.rpc.at("one.list").factory);
  EXPECT_EQ((std::vector<std::string>{"-v", "fast"}), one.jobs.at("backup").words);
  EXPECT_EQ((std::vector<std::string>{"a word"}), one.jobs.at("backup/export").words);
  EXPECT_EQ("One_Source", one.source_parsers.at("backup").factory);
  EXPECT_EQ("One_Options", one.options_parsers.at("backup").factory);
  ASSERT_EQ(1u, one.instance_handlers.size());
  EXPECT_EQ((std::vector<std::string>{"--home", "/opt/one"}), one.instance_handlers[0].words);
}

TEST(Agent_Config, keeps_the_module_of_the_installation_when_the_file_names_none)
{
  EXPECT_EQ(1u, parsed("[jobs]\nmax_concurrent = 1\n").modules.size());
}

TEST(Agent_Config, names_file_line_and_key_of_what_it_refuses)
{
  expect_part("agent.toml:2: jobs.max_concurrent: must be a whole number from 1 to 64",
              refusal("[jobs]\nmax_concurrent = 0\n"));
  expect_part("agent.toml:3: jobs.history_days: must be", refusal("[jobs]\n\nhistory_days = \"9\"\n"));
  expect_part("agent.toml:1: jobs.stop_seconds: must be", refusal("jobs = { stop_seconds = -1 }\n"));
  expect_part(
      "agent.toml:2: jobs.max_concurrnt: is not known; known here are history_days, max_concurrent, stop",
      refusal("[jobs]\nmax_concurrnt = 2\n"));
  expect_part("agent.toml:1: job: is not known; known here are agent, instances, jobs", refusal("[job]\n"));
  expect_part("agent.toml:2: jobs.stop: must be \"wait\" or \"cancel\"", refusal("[jobs]\nstop = \"now\"\n"));
  expect_part("agent.toml:2: agent.log_level: must be one of debug",
              refusal("[agent]\nlog_level = \"loud\"\n"));
  expect_part("agent.toml:1: agent: must be a table", refusal("agent = 1\n"));
  expect_part("agent.toml:2: not TOML", refusal("[agent]\nname = \n"));
  expect_part("agent.toml:2: agent.name: must be a text", refusal("[agent]\nname = 7\n"));
}

TEST(Agent_Config, takes_only_secure_server_addresses)
{
  for (const char* url : {"http://host:1", "https://", "https://user@host", "https://host/path", "host:7480"})
    expect_part("server.url: must be of the form https://HOST:PORT",
                refusal("[server]\nurl = \"" + std::string(url) + "\"\n"));
}

TEST(Agent_Config, checks_the_modules)
{
  const std::string one = "[[module]]\nname = \"one\"\npath = \"one.so\"\n";
  expect_part("module.name: is missing", refusal("[[module]]\npath = \"a.so\"\n"));
  expect_part("module.path: is missing", refusal("[[module]]\nname = \"a\"\n"));
  expect_part("stands there twice", refusal(one + one));
  expect_part("agent.toml:5: module.jobs.backups: is no type of job",
              refusal(one + "[module.jobs]\nbackups = \"C\"\n"));
  expect_part("is no type of job", refusal(one + "[module.jobs]\n\"backup/huge\" = \"C\"\n"));
  expect_part("module.jobs.backup: must be a factory's name",
              refusal(one + "[module.jobs]\nbackup = \"\"\n"));
  expect_part("module.jobs.backup: must be a factory's name",
              refusal(one + "[module.jobs]\nbackup = \"../x\"\n"));
  expect_part("module: must be tables", refusal("[module]\nname = \"one\"\n"));
  const std::string method = "[module.rpc]\n\"a.b\" = \"C\"\n";
  expect_part("module.rpc.a.b: belongs to the module one",
              refusal(one + method + "[[module]]\nname = \"two\"\npath = \"two.so\"\n" + method));
}

TEST(Agent_Config, has_the_values_that_the_documentation_shows)
{
  const std::string page = kestrel_test::read_file(kestrel_test::source_dir() + "/docs/formats.md");
  const std::string fence = "```toml\n";
  const size_t from = page.find(fence);
  ASSERT_NE(std::string::npos, from);
  const Agent_Config shown =
      parsed(page.substr(from + fence.size(), page.find("```", from + fence.size()) - from - fence.size()));
  const Agent_Config values = default_agent_config();
  EXPECT_EQ(values.log_level, shown.log_level);
  EXPECT_EQ(values.probe_minutes, shown.probe_minutes);
  EXPECT_EQ(values.max_concurrent, shown.max_concurrent);
  EXPECT_EQ(values.history_days, shown.history_days);
  EXPECT_EQ(values.cancel_at_stop, shown.cancel_at_stop);
  EXPECT_EQ(values.stop_seconds, shown.stop_seconds);
  ASSERT_EQ(1u, shown.modules.size());
  const auto factories = [](const std::map<std::string, Service_Line>& lines) {
    std::map<std::string, std::string> found;
    for (const auto& line : lines)
      found[line.first] = line.second.factory;
    return found;
  };
  const Module_Config& module = values.modules[0];
  EXPECT_EQ(module.name, shown.modules[0].name);
  EXPECT_EQ(module.path, shown.modules[0].path);
  EXPECT_EQ(factories(module.rpc), factories(shown.modules[0].rpc));
  EXPECT_EQ(factories(module.jobs), factories(shown.modules[0].jobs));
  EXPECT_EQ(factories(module.source_parsers), factories(shown.modules[0].source_parsers));
  EXPECT_EQ(factories(module.options_parsers), factories(shown.modules[0].options_parsers));
  EXPECT_EQ(module.instance_handlers[0].factory, shown.modules[0].instance_handlers[0].factory);
}

TEST(Agent_Config, a_running_agent_takes_over_what_it_can_and_names_the_rest)
{
  const std::string all = every_setting + "[[module]]\nname = \"one\"\npath = \"/opt/one.so\"\n";
  const Agent_Config now = parsed("");
  std::vector<std::string> restart = {"left over"};
  Agent_Config taken = reloaded_config(now, now, restart);
  EXPECT_TRUE(restart.empty());
  taken = reloaded_config(now, parsed(all), restart);
  EXPECT_EQ((std::vector<std::string>{"agent.name", "jobs.max_concurrent", "jobs.history_days", "module"}), restart);
  EXPECT_EQ("", taken.name);
  EXPECT_EQ(2u, taken.max_concurrent);
  EXPECT_EQ(90u, taken.history_days);
  ASSERT_EQ(1u, taken.modules.size());
  EXPECT_EQ("oscar", taken.modules[0].name);
  EXPECT_EQ(LM_DEBUG, taken.log_level);
  EXPECT_EQ("https://backup.example:7480", taken.server_url);
  EXPECT_EQ("/etc/ca.pem", taken.ca_file);
  EXPECT_EQ(5u, taken.probe_minutes);
  EXPECT_TRUE(taken.cancel_at_stop);
  EXPECT_EQ(0u, taken.stop_seconds);
}

TEST(Agent_Config, every_part_of_a_module_needs_a_restart)
{
  const std::string begin = "[[module]]\nname = \"one\"\npath = \"/opt/one.so\"\n";
  const Agent_Config now = parsed(begin);
  for (const char* change : {"[module.rpc]\nm = \"F\"\n", "[module.jobs]\nbackup = \"F\"\n",
                             "[module.source_parsers]\nbackup = \"F\"\n", "[module.options_parsers]\nbackup = \"F\"\n",
                             "[module.instances]\nhandler = \"F\"\n", "[[module]]\nname = \"two\"\npath = \"/opt/2.so\"\n"}) {
    std::vector<std::string> restart;
    reloaded_config(now, parsed(begin + change), restart);
    EXPECT_EQ(std::vector<std::string>{"module"}, restart) << change;
  }
}

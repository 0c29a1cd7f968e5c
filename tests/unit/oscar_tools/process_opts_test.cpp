#include "oscar/oscar_cmd_handler.h"
#include "process/process_options.h"
#include "support/fault_process_api.h"
#include "support/log_capture.h"
#include "support/scoped_env.h"

#include <gtest/gtest.h>

#include <cerrno>

using kestrel_test::Fault_Process_Api;
using kestrel_test::Log_Capture;
using kestrel_test::Scoped_Env;

namespace
{
// The last value that the environment holds for NAME, or "-".
std::string value_in(const std::vector<std::string>& environment, const std::string& name)
{
  std::string value = "-";
  for (const std::string& entry : environment) {
    if (entry.compare(0, name.size() + 1, name + "=") == 0)
      value = entry.substr(name.size() + 1);
  }
  return value;
}

// What a child would get; nothing is started.
kestrel::Spawn_Request request_for(const std::string& oscar_home, const std::string& cmd)
{
  Log_Capture log;
  Fault_Process_Api api;
  api.fail_all(ENOENT);
  EXPECT_EQ(execute_oscar_cmd(oscar_home.c_str(), cmd.c_str(), false, false, nullptr, nullptr), -1);
  const std::vector<kestrel::Spawn_Request> requests = api.requests();
  EXPECT_EQ(requests.size(), 1u);
  return requests.empty() ? kestrel::Spawn_Request() : requests[0];
}

// A command of exactly this many bytes.
std::string command_of(size_t bytes)
{
  return "tool " + std::string(bytes - 5, 'x');
}
} // namespace

TEST(Set_Process_Opts, refuses_a_missing_home)
{
  for (const char* home : {static_cast<const char*>(nullptr), ""}) {
    Log_Capture log;
    ACE_Process_Options opts(true, 1024, 16384, 512, 128);
    EXPECT_FALSE(set_process_opts(home, opts));
    log.expect(LM_EMERGENCY, "oscar_cmd_handler.cpp:");
    EXPECT_EQ(log.count(LM_EMERGENCY, "Unexpected error in "), 1u);
    EXPECT_EQ(log.count(LM_EMERGENCY, ", oscar_home is NULL or \"\":\n"), 1u);
  }
}

TEST(Set_Process_Opts, refuses_a_missing_command_before_the_home)
{
  for (const char* cmd : {static_cast<const char*>(nullptr), ""}) {
    Log_Capture log;
    ACE_Process_Options opts(true, 1024, 16384, 512, 128);
    EXPECT_FALSE(set_process_opts(nullptr, cmd, opts));
    log.expect(LM_EMERGENCY, ", cmd is NULL or \"\":\n");
    EXPECT_EQ(log.count("oscar_home"), 0u);
  }
}

TEST(Set_Process_Opts, gives_every_tool_the_same_environment)
{
  const Scoped_Env home("SZ_OSCAR_HOME", "/elsewhere");
  const Scoped_Env lang("LANG", "de_DE.UTF-8");
  const Scoped_Env all("LC_ALL", "de_DE.UTF-8");
  const Scoped_Env libraries("LD_LIBRARY_PATH", nullptr);
  const kestrel::Spawn_Request request = request_for("/opt/db", "/opt/db/bin/isql --version");
  EXPECT_EQ(value_in(request.environment, "SZ_OSCAR_HOME"), "/opt/db");
  EXPECT_EQ(value_in(request.environment, "LC_ALL"), "en_US.UTF8");
  EXPECT_EQ(value_in(request.environment, "LANG"), "en_US.UTF8");
  EXPECT_EQ(value_in(request.environment, "LD_LIBRARY_PATH"), "/opt/db/bin");
  EXPECT_TRUE(request.close_others);
  EXPECT_EQ(request.process_group, 0) << "whoever ends the tool must reach its children";
}

TEST(Set_Process_Opts, extends_the_library_path_of_the_agent)
{
  const Scoped_Env libraries("LD_LIBRARY_PATH", "/usr/local/lib:/x y");
  const kestrel::Spawn_Request request = request_for("/opt/db", "tool");
  EXPECT_EQ(value_in(request.environment, "LD_LIBRARY_PATH"), "/usr/local/lib:/x y:/opt/db/bin");
}

TEST(Set_Process_Opts, does_not_repeat_a_library_directory)
{
  const Scoped_Env libraries("LD_LIBRARY_PATH", "/opt/db/bin:/lib");
  const kestrel::Spawn_Request request = request_for("/opt/db", "tool");
  EXPECT_EQ(value_in(request.environment, "LD_LIBRARY_PATH"), "/opt/db/bin:/lib");
}

TEST(Set_Process_Opts, may_be_applied_again_and_again)
{
  const Scoped_Env libraries("LD_LIBRARY_PATH", nullptr);
  Oscar_Query_Handler query;
  for (int round = 0; round < 20; ++round)
    EXPECT_TRUE(query.reset("/opt/db" + std::to_string(round % 2), "DB1", "u", "p", 2003));
  Fault_Process_Api api;
  api.fail_all(ENOENT);
  EXPECT_FALSE(query.select("select 1"));
  ASSERT_EQ(api.requests().size(), 1u);
  const std::vector<std::string> environment = api.requests()[0].environment;
  EXPECT_EQ(value_in(environment, "SZ_OSCAR_HOME"), "/opt/db1");
  EXPECT_EQ(value_in(environment, "LD_LIBRARY_PATH"), "/opt/db0/bin:/opt/db1/bin");
}

TEST(Set_Process_Opts, percent_signs_and_shell_characters_stay_plain_text)
{
  const kestrel::Spawn_Request request =
      request_for("/opt/db", "\"/opt/a b/isql\" -Uu/%s%n100% $HOME;`id`\t\\x -c \"select 'a b'\"");
  const std::vector<std::string> expected = {"/opt/a b/isql", "-Uu/%s%n100%", "$HOME;`id`\t\\x", "-c",
                                             "select 'a b'"};
  EXPECT_EQ(request.argv, expected);
}

TEST(Set_Process_Opts, runs_a_command_that_just_fits)
{
  const kestrel::Spawn_Request request = request_for("/opt/db", command_of(1023));
  ASSERT_EQ(request.argv.size(), 2u);
  EXPECT_EQ(request.argv[1].size(), 1018u);
}

TEST(Set_Process_Opts, refuses_a_command_that_does_not_fit)
{
  Log_Capture log;
  Fault_Process_Api api;
  EXPECT_EQ(execute_oscar_cmd("/opt/db", command_of(1024).c_str(), false, false, nullptr, nullptr), -1);
  EXPECT_EQ(api.requests().size(), 0u);
  log.expect(LM_ERROR, "Oscar command of 1024 bytes is not run: a command line holds at most 1023 bytes");

  ACE_Process_Options opts(true, 1024, 16384, 512, 128);
  EXPECT_TRUE(set_process_opts("/opt/db", "some command", opts));
  EXPECT_FALSE(set_process_opts("/opt/db", command_of(1024).c_str(), opts));
  EXPECT_EQ(opts.command_line_argv()[0], nullptr);
  log.expect(LM_ERROR, "Oscar command of 1024 bytes is not run");
}

TEST(Set_Process_Opts, refuses_more_arguments_than_would_be_passed_on)
{
  Log_Capture log;
  ACE_Process_Options opts(true, 1024, 16384, 512, 128);
  std::string cmd = "tool";
  for (int i = 0; i < 125; ++i)
    cmd += " a";
  EXPECT_TRUE(set_process_opts("/opt/db", cmd.c_str(), opts));
  EXPECT_FALSE(set_process_opts("/opt/db", (cmd + " a a").c_str(), opts));
  log.expect(LM_ERROR, "126 arguments");
}

TEST(Execute_Oscar_Cmd, starts_nothing_without_home_or_command)
{
  Log_Capture log;
  Fault_Process_Api api;
  Execute_Cmd_Line_Handler handler(nullptr, false);
  for (const char* missing : {static_cast<const char*>(nullptr), ""}) {
    EXPECT_EQ(execute_oscar_cmd(missing, "tool", false, false, nullptr, nullptr), -1);
    log.expect(LM_EMERGENCY, "oscar_home is NULL or \"\":\n");
    EXPECT_EQ(execute_oscar_cmd("/opt/db", missing, false, false, nullptr, nullptr), -1);
    log.expect(LM_EMERGENCY, "cmd is NULL or \"\":\n");
    EXPECT_EQ(execute_oscar_brcmd_spawn(missing, "tool", nullptr, handler), -1);
    log.expect(LM_EMERGENCY, "oscar_home is NULL or \"\":\n");
    EXPECT_EQ(execute_oscar_brcmd_spawn("/opt/db", missing, nullptr, handler), -1);
    log.expect(LM_EMERGENCY, "cmd is NULL or \"\":\n");
  }
  EXPECT_EQ(api.requests().size(), 0u);
  EXPECT_EQ(log.count("Oscar command"), 0u);
}

TEST(Execute_Oscar_Cmd, logs_the_command_masked_and_only_so)
{
  Log_Capture log;
  Fault_Process_Api api;
  api.fail_all(ENOENT);
  EXPECT_EQ(execute_oscar_cmd("/opt/db", "isql -Usysdba/secret -p 5432", false, false, nullptr, nullptr), -1);
  log.expect_exactly(LM_INFO, "Oscar command:\nisql -Usysdba/*** -p 5432\n");
  EXPECT_EQ(execute_oscar_cmd("/opt/db", "brcmd -u a -p secret", true, false, nullptr, nullptr), -1);
  log.expect_exactly(LM_INFO, "Oscar command:\nbrcmd -u a -p***\n");
  const Oscar_Cmd_Login login = {"a b", "my secret"};
  EXPECT_EQ(execute_oscar_cmd("/opt/db", "isql -Ua b/my secret", login, false, false, nullptr, nullptr), -1);
  log.expect_exactly(LM_INFO, "Oscar command:\nisql -Ua b/***\n");
  EXPECT_FALSE(log.contains("secret"));
}

TEST(Execute_Oscar_Brcmd_Spawn, says_that_the_tool_could_not_be_started)
{
  Log_Capture log;
  Fault_Process_Api api;
  api.fail_all(EACCES);
  Execute_Cmd_Line_Handler handler(nullptr, true);
  EXPECT_EQ(execute_oscar_brcmd_spawn("/opt/db", "brcmd -p secret", nullptr, handler), -1);
  log.expect_exactly(LM_INFO, "Oscar command:\nbrcmd -p***\n");
  log.expect_exactly(LM_ERROR, "Failed to spawn oscar process.\n");
  const Oscar_Cmd_Login login = {"a", "my secret"};
  EXPECT_EQ(execute_oscar_brcmd_spawn("/opt/db", "brcmd -p my secret -P 1", login, nullptr, handler), -1);
  log.expect_exactly(LM_INFO, "Oscar command:\nbrcmd -p*** -P 1\n");
  log.expect_exactly(LM_ERROR, "Failed to spawn oscar process.\n");
  EXPECT_FALSE(log.contains("secret"));
}

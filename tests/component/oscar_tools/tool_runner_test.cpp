#include "oscar/oscar_cmd_handler.h"
#include "oscar_home.h"
#include "support/log_capture.h"
#include "support/scoped_env.h"

#include <ace/Log_Record.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <mutex>
#include <thread>
#include <unistd.h>

using namespace kestrel_test;

namespace
{
typedef std::vector<std::string> Lines;

// What a job's log would hold.
class Collecting_Callback : public ACE_Log_Msg_Callback
{
public:
  void log(ACE_Log_Record& record) override
  {
    std::lock_guard<std::mutex> guard(mutex_);
    text_ += record.msg_data();
  }
  std::string text() const
  {
    std::lock_guard<std::mutex> guard(mutex_);
    return text_;
  }

private:
  mutable std::mutex mutex_;
  std::string text_;
};

// The arguments that a tool named "tool" receives for a command that begins with its path.
Lines arguments_for(const std::string& rest, const Oscar_Cmd_Login& login)
{
  const Oscar_Home home;
  const std::string tool = home.tool("tool", "dump_args " + home / "args");
  const std::string cmd = tool + " " + rest;
  EXPECT_EQ(execute_oscar_cmd(home.path(), cmd.c_str(), login, false, false, nullptr, nullptr), 0);
  Lines lines = lines_of(home / "args");
  lines.erase(lines.begin());
  EXPECT_EQ(lines.back(), "--");
  lines.pop_back();
  return lines;
}

int run(const Oscar_Home& home, const std::string& script, std::string* error = nullptr)
{
  const std::string tool = home.tool("tool", script);
  return execute_oscar_cmd(home.path(), tool.c_str(), false, false, nullptr, error);
}
} // namespace

TEST(Tool_Runner, tool_sees_home_locale_and_library_path)
{
  const Scoped_Env elsewhere("SZ_OSCAR_HOME", "/elsewhere");
  const Scoped_Env lang("LANG", "C");
  const Scoped_Env all("LC_ALL", "C");
  const Scoped_Env libraries("LD_LIBRARY_PATH", "/lib/of/agent");
  const Scoped_Env other("KESTREL_OTHER_VARIABLE", "kept as it is");
  const Oscar_Home home;
  EXPECT_EQ(run(home, "dump_env " + home / "env"), 0);
  const Lines environment = lines_of(home / "env");
  EXPECT_EQ(value_of(environment, "SZ_OSCAR_HOME"), home.path());
  EXPECT_EQ(value_of(environment, "LC_ALL"), "en_US.UTF8");
  EXPECT_EQ(value_of(environment, "LANG"), "en_US.UTF8");
  EXPECT_EQ(value_of(environment, "LD_LIBRARY_PATH"), "/lib/of/agent:" + home / "bin");
  EXPECT_EQ(value_of(environment, "KESTREL_OTHER_VARIABLE"), "kept as it is");
}

TEST(Tool_Runner, library_path_is_the_tools_directory_when_the_agent_has_none)
{
  const Scoped_Env libraries("LD_LIBRARY_PATH", nullptr);
  const Oscar_Home home;
  EXPECT_EQ(run(home, "dump_env " + home / "env"), 0);
  EXPECT_EQ(value_of(lines_of(home / "env"), "LD_LIBRARY_PATH"), home / "bin");
}

TEST(Tool_Runner, tool_gets_no_descriptor_of_the_agent)
{
  const Oscar_Home home;
  const int inheritable = ::fcntl(STDOUT_FILENO, F_DUPFD, 200);
  ASSERT_GE(inheritable, 200);
  EXPECT_EQ(run(home, "dump_state " + home / "state"), 0);
  ::close(inheritable);
  const Lines state = lines_of(home / "state");
  EXPECT_EQ(value_of(state, "fds").find("," + std::to_string(inheritable) + ","), std::string::npos);
  EXPECT_EQ(value_of(state, "stdin"), "/dev/null");
}

TEST(Tool_Runner, result_tells_success_status_and_signal_apart)
{
  const Oscar_Home home;
  EXPECT_EQ(run(home, "exit 0"), 0);
  EXPECT_EQ(run(home, "exit 3"), 3);
  EXPECT_EQ(run(home, "exit 255"), 255);
  EXPECT_EQ(run(home, "die KILL"), -1);
  const std::string missing = home / "bin/missing";
  EXPECT_EQ(execute_oscar_cmd(home.path(), missing.c_str(), false, false, nullptr, nullptr), -1);
}

TEST(Tool_Runner, hands_back_the_error_of_isql)
{
  Log_Capture log;
  const Oscar_Home home;
  std::string error = "before";
  EXPECT_EQ(run(home,
                Oscar_Home::out("isql: ERROR, not here") + Oscar_Home::err("notice") +
                    Oscar_Home::err("isql: ERROR, password authentication failed  ") + "exit 2",
                &error),
            2);
  EXPECT_EQ(error, "Error, password authentication failed.");
  log.expect_exactly(LM_ERROR, "Failed info: notice\n");
  log.expect_exactly(LM_ERROR, "Failed info: isql: ERROR, password authentication failed  \n");
  EXPECT_EQ(log.count("not here"), 0u);
}

TEST(Tool_Runner, echoes_all_output_and_keeps_the_error_untouched_when_asked)
{
  Log_Capture log;
  const Oscar_Home home;
  const std::string tool =
      home.tool("tool", Oscar_Home::out("100% of %s done") + Oscar_Home::err("isql: ERROR, bad") + "exit 1");
  auto callback = std::make_shared<Collecting_Callback>();
  std::string error = "before";
  EXPECT_EQ(execute_oscar_cmd(home.path(), tool.c_str(), false, true, callback, &error), 1);
  EXPECT_EQ(error, "before");
  log.expect(LM_INFO, "100% of %s done");
  log.expect(LM_ERROR, "isql: ERROR, bad");
  EXPECT_NE(callback->text().find("100% of %s done"), std::string::npos);
  EXPECT_NE(callback->text().find("isql: ERROR, bad"), std::string::npos);
}

TEST(Tool_Runner, a_child_may_print_more_than_a_pipe_holds_on_both_streams)
{
  Log_Capture log;
  log.allow(LM_ERROR, "Failed info: ");
  const Oscar_Home home;
  std::string error;
  EXPECT_EQ(run(home,
                "out_lines 20000 \"line {n} of the output\"\nerr_lines 20000 \"isql: ERROR, {n}\"\n"
                "out_lines 20000 \"line {n} of the output\"\nexit 0",
                &error),
            0);
  EXPECT_EQ(error, "Error, 19999.");
}

TEST(Tool_Runner, passwords_reach_the_tool_as_the_templates_put_them)
{
  for (const char* password :
       {"p/a/s/s", "100%s%n%", "$HOME`id`;|&", "pa\"ss\"wd", "it''s", "p\\a\\ss", "caf\xc3\xa9"}) {
    Log_Capture log;
    const std::string rest = std::string("-Usysdba/") + password + " -dDB1";
    EXPECT_EQ(arguments_for(rest, Oscar_Cmd_Login{"sysdba", password}),
              (Lines{std::string("-Usysdba/") + password, "-dDB1"}));
    EXPECT_FALSE(log.contains(password));
  }
}

TEST(Tool_Runner, blanks_and_odd_quotes_in_passwords_break_the_command_but_never_the_mask)
{
  Log_Capture log;
  EXPECT_EQ(arguments_for("-Usysdba/my secret -dDB1", Oscar_Cmd_Login{"sysdba", "my secret"}),
            (Lines{"-Usysdba/my", "secret", "-dDB1"}));
  EXPECT_EQ(arguments_for("-Usysdba/se\"cret -dDB1", Oscar_Cmd_Login{"sysdba", "se\"cret"}).size(), 1u);
  EXPECT_EQ(log.count(LM_INFO, " -Usysdba/*** -dDB1\n"), 2u);
  EXPECT_FALSE(log.contains("cret"));
}

TEST(Tool_Runner, a_command_that_does_not_fit_is_not_run_in_part)
{
  Log_Capture log;
  const Oscar_Home home;
  const std::string tool = home.tool("tool", "write_file " + home / "ran" + " yes");
  const std::string just_fits = tool + " " + std::string(1023 - tool.size() - 1, 'x');
  EXPECT_EQ(execute_oscar_cmd(home.path(), (just_fits + "x").c_str(), false, false, nullptr, nullptr), -1);
  EXPECT_FALSE(exists(home / "ran"));
  log.expect(LM_ERROR, "Oscar command of 1024 bytes is not run");
  EXPECT_EQ(execute_oscar_cmd(home.path(), just_fits.c_str(), false, false, nullptr, nullptr), 0);
  EXPECT_TRUE(exists(home / "ran"));
}

TEST(Tool_Runner, an_owned_handler_can_be_terminated_from_another_thread)
{
  Log_Capture log;
  const Oscar_Home home;
  const std::string tool = home.tool("brcmd", "write_file " + home / "up" + " yes\nhang");
  Execute_Cmd_Line_Handler handler(nullptr, false);
  int result = 0;
  std::thread runner([&] {
    result = execute_oscar_cmd(home.path(), (tool + " -p secret").c_str(), Oscar_Cmd_Login(), true, nullptr,
                               handler);
  });
  EXPECT_TRUE(wait_for_file(home / "up"));
  EXPECT_EQ(handler.terminate(20), 0);
  runner.join();
  EXPECT_EQ(result, -1);
  log.expect_exactly(LM_INFO, "Oscar command:\n" + tool + " -p***\n");
}

TEST(Brcmd_Spawn, feeds_the_callers_handler_and_returns_the_status)
{
  Log_Capture log;
  const Oscar_Home home;
  const std::string tool =
      home.tool("brcmd", Oscar_Home::out("backed up") + Oscar_Home::err("warned") + "exit 4");
  auto callback = std::make_shared<Collecting_Callback>();
  Execute_Cmd_Line_Handler handler(nullptr, true);
  EXPECT_EQ(
      execute_oscar_brcmd_spawn(home.path(), (tool + " -u a -p secret -P 2003").c_str(), callback, handler),
      4);
  log.expect_exactly(LM_INFO, "Oscar command:\n" + tool + " -u a -p*** -P 2003\n");
  log.expect(LM_INFO, "backed up");
  log.expect(LM_ERROR, "warned");
  EXPECT_FALSE(log.contains("secret"));
  EXPECT_EQ(callback->text().find("secret"), std::string::npos);
  EXPECT_NE(callback->text().find("backed up"), std::string::npos);
  EXPECT_NE(callback->text().find("warned"), std::string::npos);
}

TEST(Brcmd_Spawn, a_missing_tool_is_reported)
{
  Log_Capture log;
  const Oscar_Home home;
  Execute_Cmd_Line_Handler handler(nullptr, true);
  const std::string cmd = home / "bin/brcmd" + " -p secret";
  EXPECT_EQ(execute_oscar_brcmd_spawn(home.path(), cmd.c_str(), nullptr, handler), -1);
  log.expect_exactly(LM_ERROR, "Failed to spawn oscar process.\n");
  EXPECT_FALSE(log.contains("secret"));
}

TEST(Brcmd_Spawn, a_command_that_does_not_fit_is_reported)
{
  Log_Capture log;
  const Oscar_Home home;
  const std::string tool = home.tool("brcmd", "write_file " + home / "ran" + " yes");
  Execute_Cmd_Line_Handler handler(nullptr, true);
  const std::string cmd = tool + " -e " + std::string(1100, 'x');
  EXPECT_EQ(execute_oscar_brcmd_spawn(home.path(), cmd.c_str(), nullptr, handler), -1);
  EXPECT_FALSE(exists(home / "ran"));
  log.expect(LM_ERROR, "is not run");
  log.expect_exactly(LM_ERROR, "Failed to spawn oscar process.\n");
}

TEST(Tool_Runner, several_threads_may_run_tools_at_once)
{
  Log_Capture log;
  const Oscar_Home home;
  const std::string tool = home.tool("tool", "err \"isql: ERROR, number ${arg:1}\"\nexit ${arg:1}");
  log.allow(LM_ERROR, "Failed info: isql: ERROR, number ");
  std::vector<std::thread> threads;
  std::vector<int> results(8, -2);
  std::vector<std::string> errors(8);
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([&, i] {
      const std::string cmd = tool + " " + std::to_string(i);
      for (int round = 0; round < 5; ++round)
        results[i] = execute_oscar_cmd(home.path(), cmd.c_str(), false, false, nullptr, &errors[i]);
    });
  }
  for (std::thread& thread : threads)
    thread.join();
  for (int i = 0; i < 8; ++i) {
    EXPECT_EQ(results[i], i);
    EXPECT_EQ(errors[i], "Error, number " + std::to_string(i) + ".");
  }
}

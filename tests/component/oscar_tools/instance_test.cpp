#include "base/ignore_result.h"
#include "base/scope_guard.h"
#include "oscar/utils.h"
#include "oscar_home.h"
#include "process/process_ex.h"
#include "process/text_process_handler.h"
#include "support/clocks.h"
#include "support/log_capture.h"
#include "support/scoped_env.h"
#include "json/json_util.h"

#include <gtest/gtest.h>

#include <ctime>
#include <fstream>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace kestrel_test;
using json_spirit::Value;
using kestrel::write_json;

namespace
{
typedef std::vector<std::string> Lines;

std::shared_ptr<Instance> instance_at(const Oscar_Home& home)
{
  auto instance = std::make_shared<Instance>();
  instance->options["oscar_home"] = home.path();
  return instance;
}

bool login(const Oscar_Home& home, const char* password, std::string* error)
{
  return test_login_instance(home.path(), "DB1", "sysdba", password, error);
}

// A name that no instance of this host has.
std::string unique_name()
{
  return "TOOLTEST" + std::to_string(::getpid());
}

// Puts the home's tools first on PATH. Called without a directory, a tool must be told where its script is.
struct Path_With_Tools {
  explicit Path_With_Tools(const Oscar_Home& home)
      : path_("PATH", home / "bin" + ":" + ::getenv("PATH")),
        script_("FAKE_TOOL_SCRIPT", home / "bin/systemctl.script")
  {
  }
  const Scoped_Env path_;
  const Scoped_Env script_;
};

// An isql for browsing: the login works, and each statement has its answer.
const char Browsing_Isql[] =
    "if args_match \" -l$\"\nexit 0\nend\n"
    "if args_contain v_sys_database_info\nout H\nout -\nout ARCHIVELOG\nout \"(1 row)\"\nend\n"
    "if args_contain v_sys_schemas\nout H\nout -\nout SYSDBA\nout S1\nout \" S2 \"\nend\n"
    "if args_contain v_sys_tables\nout H\nout -\nout \"S1|T1|TABLE\"\nout \"S1|T2|VIEW\"\nend\n";
} // namespace

TEST(Login_Test, succeeds_when_isql_does)
{
  Log_Capture log;
  const Oscar_Home home;
  home.tool("isql", "dump_args " + home / "args");
  std::string error = "before";
  EXPECT_TRUE(login(home, "secret", &error));
  EXPECT_EQ(error, "before");
  EXPECT_EQ(lines_of(home / "args"),
            (Lines{home / "bin/isql", "-Usysdba/secret", "-dDB1", "-p2010", "-l", "--"}));
  log.expect_exactly(LM_INFO, "Oscar command:\n\"" + home / "bin/isql" + "\" -Usysdba/*** -dDB1 -p2010 -l\n");
  EXPECT_FALSE(log.contains("secret"));
}

TEST(Login_Test, hands_back_why_isql_refused)
{
  Log_Capture log;
  const Oscar_Home home;
  home.tool("isql", "err \"isql: ERROR, password authentication failed  \"\nexit 2");
  std::string error;
  EXPECT_FALSE(login(home, "secret", &error));
  EXPECT_EQ(error, "Error, password authentication failed.");
  log.expect(LM_ERROR, "Failed info: isql: ERROR, password");
  EXPECT_FALSE(login(home, "secret", nullptr));
  EXPECT_FALSE(log.contains("secret"));
}

TEST(Login_Test, a_home_with_a_blank_works_for_the_login)
{
  const Temp_Dir dir;
  dir.make_dir("my home/bin");
  make_fake_tool(dir, "my home/bin/isql", "exit 0");
  EXPECT_TRUE(test_login_instance((dir / "my home").c_str(), "DB1", "u", "p", nullptr));
}

TEST(Instance_State, is_online_when_something_listens_on_the_port)
{
  const Oscar_Home home;
  std::string state;
  unsigned short port = 0;
  {
    const Listener listener;
    port = listener.port();
    home.dir().write("admin/DB1.conf", "port = " + std::to_string(port) + "\n");
    EXPECT_TRUE(get_instance_state(home.path(), "DB1", state));
    EXPECT_EQ(state, "online");
  }
  EXPECT_FALSE(get_instance_state(home.path(), "DB1", state));
  EXPECT_EQ(state, "offline");
}

TEST(Instance_Running, a_dead_process_does_not_run_but_its_id_is_reported)
{
  const Oscar_Home home;
  const pid_t child = ::fork();
  if (child == 0)
    ::_exit(0);
  ASSERT_EQ(::waitpid(child, nullptr, 0), child);
  home.dir().write("admin/DB1.db", std::to_string(child) + "\n");
  int pid = 0;
  EXPECT_FALSE(instance_running(home.path(), "DB1", pid));
  EXPECT_EQ(pid, child);
}

TEST(Instance_Running, a_zombie_counts_as_running)
{
  const Oscar_Home home;
  const pid_t child = ::fork();
  if (child == 0)
    ::_exit(0);
  siginfo_t info = {};
  ASSERT_EQ(::waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOWAIT), 0);
  home.dir().write("admin/DB1.db", std::to_string(child) + "\n");
  int pid = 0;
  EXPECT_TRUE(instance_running(home.path(), "DB1", pid));
  EXPECT_EQ(::waitpid(child, nullptr, 0), child);
  EXPECT_FALSE(instance_running(home.path(), "DB1", pid));
}

TEST(Start_Instance, asks_systemctl_where_there_is_no_init_script)
{
  Log_Capture log;
  const Fake_Clock clock;
  const Oscar_Home home;
  const Listener listener;
  const std::string name = unique_name();
  home.dir().write("admin/" + name + ".conf", "port = " + std::to_string(listener.port()) + "\n");
  home.tool("systemctl",
            "dump_args " + home / "args" + "\ndump_env " + home / "env" + "\ndump_state " + home / "state");
  const Path_With_Tools path(home);
  EXPECT_TRUE(start_instance(home.path(), name.c_str()));
  EXPECT_EQ(clock.sleeps(), 0u) << "it was online at the first look";
  Lines args = lines_of(home / "args");
  args.erase(args.begin());
  EXPECT_EQ(args, (Lines{"start", "oscard@" + name, "--"}));
  EXPECT_EQ(value_of(lines_of(home / "env"), "SZ_OSCAR_HOME"), home.path());
  const Lines state = lines_of(home / "state");
  EXPECT_EQ(value_of(state, "pgid"), value_of(state, "pid")) << "in a process group of its own";
}

TEST(Start_Instance, is_what_the_command_says_although_the_instance_never_comes_up)
{
  const Fake_Clock clock;
  const Oscar_Home home;
  const std::string name = unique_name();
  home.dir().write("admin/" + name + ".conf", "port = 0\n");
  home.tool("systemctl", "exit 0");
  const Path_With_Tools path(home);
  EXPECT_TRUE(start_instance(home.path(), name.c_str()));
  EXPECT_EQ(clock.slept_msec(), 15000);
  home.tool("systemctl", "exit 5");
  EXPECT_FALSE(start_instance(home.path(), name.c_str()));
  EXPECT_EQ(clock.sleeps(), 10u);
}

TEST(Start_Instance, stops_looking_once_the_instance_is_up)
{
  // Comes up while the module sleeps for the third time.
  class Opening_Clock : public kestrel::Clock
  {
  public:
    explicit Opening_Clock(const Oscar_Home& home, const std::string& name) : home_(home), name_(name) {}
    void sleep_msec(int64_t msec) override
    {
      slept_.push_back(msec);
      if (slept_.size() == 3)
        home_.dir().write("admin/" + name_ + ".conf", "port = " + std::to_string(listener_.port()) + "\n");
    }
    const std::vector<int64_t>& slept() const { return slept_; }

  private:
    const Oscar_Home& home_;
    const std::string name_;
    const Listener listener_;
    std::vector<int64_t> slept_;
  };
  const Oscar_Home home;
  const std::string name = unique_name();
  home.dir().write("admin/" + name + ".conf", "port = 0\n");
  home.tool("systemctl", "exit 0");
  const Path_With_Tools path(home);
  Opening_Clock clock(home, name);
  const kestrel::Scoped_Clock scope(clock);
  EXPECT_TRUE(start_instance(home.path(), name.c_str()));
  EXPECT_EQ(clock.slept(), (std::vector<int64_t>{1000, 2000, 3000}));
}

TEST(Start_Instance, a_daemon_left_behind_does_not_hold_it_up)
{
  const Fake_Clock clock;
  const Oscar_Home home;
  const std::string name = unique_name();
  home.dir().write("admin/" + name + ".conf", "port = 0\n");
  home.tool("systemctl", "grandchild 20000 " + home / "daemon");
  const Path_With_Tools path(home);
  const time_t begin = ::time(nullptr);
  EXPECT_TRUE(start_instance(home.path(), name.c_str()));
  EXPECT_LT(::time(nullptr) - begin, 10);
  const pid_t daemon = std::stoi(read_file(home / "daemon"));
  EXPECT_EQ(::kill(daemon, 0), 0) << "the server outlives its start";
  ::kill(daemon, SIGKILL);
}

TEST(Start_Instance, prefers_the_init_script_and_runs_nothing_when_it_runs_already)
{
  Log_Capture log;
  const Fake_Clock clock;
  const Oscar_Home home;
  const std::string name = unique_name();
  const std::string script = "/etc/init.d/oscardb_" + name + "d";
  home.dir().write("admin/" + name + ".conf", "port = 0\n");
  home.tool("systemctl", "write_file " + home / "systemctl_ran" + " yes");
  const Path_With_Tools path(home);
  if (::geteuid() != 0) {
    // Nobody else may put a script there, so the other way is taken.
    EXPECT_TRUE(start_instance(home.path(), name.c_str()));
    EXPECT_TRUE(exists(home / "systemctl_ran"));
    return;
  }
  const bool made = ::mkdir("/etc/init.d", 0755) == 0;
  const kestrel::Scope_Guard clean_up([&] {
    ::unlink(script.c_str());
    if (made)
      ::rmdir("/etc/init.d");
  });
  std::ofstream(script) << "#!/bin/sh\necho \"$# $1 $SZ_OSCAR_HOME\" >" << home / "script_ran"
                        << "\nexit 6\n";
  ASSERT_EQ(::chmod(script.c_str(), 0755), 0);
  EXPECT_FALSE(start_instance(home.path(), name.c_str())) << "its status is the result";
  EXPECT_EQ(read_file(home / "script_ran"), std::string("1 start ") + home.path() + "\n");
  EXPECT_FALSE(exists(home / "systemctl_ran"));

  ::unlink((home / "script_ran").c_str());
  home.dir().write("admin/" + name + ".db", std::to_string(::getpid()) + "\n");
  EXPECT_TRUE(start_instance(home.path(), name.c_str()));
  EXPECT_FALSE(exists(home / "script_ran"));
  log.expect_exactly(LM_INFO, "Instance " + name + " is already running.\n");
}

TEST(Browsing, an_open_database_tells_all_about_itself)
{
  const Oscar_Home home;
  home.tool("isql", Browsing_Isql);
  const auto instance = instance_at(home);
  instance->options["version"] = "5.7.2";
  Value value = "before";
  EXPECT_TRUE(get_database_info(instance, "DB1", "sysdba", "secret", value));
  EXPECT_EQ(write_json(value),
            "[{\"database\":\"DB1\",\"status\":\"open\",\"archivelog\":true,\"version\":\"5.7.2\"}]");
}

TEST(Browsing, a_database_with_a_wrong_login_is_unopened)
{
  const Oscar_Home home;
  home.tool("isql", "err \"isql: ERROR, no\"\nexit 1");
  Value value;
  EXPECT_TRUE(get_database_info(instance_at(home), "DB1", "sysdba", "secret", value));
  EXPECT_EQ(write_json(value), "[{\"database\":\"DB1\",\"status\":\"unopened\"}]");
}

TEST(Browsing, an_open_database_without_a_recorded_version_fails_late)
{
  Log_Capture log;
  const Oscar_Home home;
  home.tool("isql", Browsing_Isql);
  Value value;
  EXPECT_FALSE(get_database_info(instance_at(home), "DB1", "sysdba", "secret", value));
  EXPECT_EQ(write_json(value), "[{\"database\":\"DB1\",\"status\":\"open\",\"archivelog\":true}]");
  log.expect_exactly(LM_ERROR, "Failed to get version, instance DB1.\n");
}

TEST(Browsing, an_open_database_without_a_log_mode_fails)
{
  Log_Capture log;
  const Oscar_Home home;
  home.tool("isql", "if args_contain v_sys\nexit 1\nend");
  Value value;
  EXPECT_FALSE(get_database_info(instance_at(home), "DB1", "sysdba", "secret", value));
  EXPECT_EQ(write_json(value), "[{\"database\":\"DB1\",\"status\":\"open\"}]");
  log.expect_exactly(LM_ERROR, "Failed to get log mode.\n");
  log.expect_exactly(LM_ERROR, "Failed to get archive mode, instance DB1.\n");
}

TEST(Browsing, an_open_database_whose_port_went_away_fails)
{
  Log_Capture log;
  const Oscar_Home home;
  home.tool("isql", "write_file " + home / "admin/DB1.conf" + " none");
  Value value;
  EXPECT_FALSE(get_database_info(instance_at(home), "DB1", "sysdba", "secret", value));
  EXPECT_EQ(write_json(value), "[{\"database\":\"DB1\",\"status\":\"open\"}]");
  log.expect_exactly(LM_ERROR, "Failed to get port, instance DB1.\n");
}

TEST(Browsing, schemas_are_an_array_of_names)
{
  const Oscar_Home home;
  home.tool("isql", Browsing_Isql);
  Value value = "before";
  EXPECT_TRUE(get_schemas_info(instance_at(home), "DB1", "another db", "sysdba", "secret", value));
  EXPECT_EQ(write_json(value), "[\"S1\",\"S2\"]");
  home.isql_answers({"SYSDBA", "PUBLIC"});
  EXPECT_TRUE(get_schemas_info(instance_at(home), "DB1", "another db", "sysdba", "secret", value));
  EXPECT_EQ(write_json(value), "[]");
}

TEST(Browsing, tables_are_an_array_of_names)
{
  const Oscar_Home home;
  home.tool("isql", Browsing_Isql);
  Value value = "before";
  EXPECT_TRUE(get_tables_info(instance_at(home), "DB1", "another db", "S1", "sysdba", "secret", value));
  EXPECT_EQ(write_json(value), "[\"T1\",\"T2\"]");
}

TEST(Browsing, the_instance_is_asked_whatever_the_database_is_called)
{
  const Oscar_Home home;
  home.tool("isql", "dump_args " + home / "args");
  Value value;
  EXPECT_TRUE(get_schemas_info(instance_at(home), "DB1", "another_db", "sysdba", "secret", value));
  EXPECT_TRUE(get_tables_info(instance_at(home), "DB1", "another_db", "S1", "sysdba", "secret", value));
  const std::string args = read_file(home / "args");
  EXPECT_EQ(args.find("another_db"), std::string::npos);
  EXPECT_NE(args.find("\n-dDB1\n"), std::string::npos);
}

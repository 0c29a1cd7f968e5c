#include "oscar/utils.h"
#include "support/clocks.h"
#include "support/fault_file_system.h"
#include "support/fault_process_api.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <unistd.h>

using kestrel_test::Fake_Clock;
using kestrel_test::Fault_File_System;
using kestrel_test::Fault_Process_Api;
using kestrel_test::Log_Capture;
using kestrel_test::Temp_Dir;

namespace
{
// Whether an instance with this .db file runs; PID keeps what the call made of -7.
bool runs_with(const std::string& content, int& pid)
{
  const Temp_Dir home;
  home.write("admin/DB1.db", content);
  pid = -7;
  return instance_running(home.path().c_str(), "DB1", pid);
}
} // namespace

TEST(Instance_Running, refuses_null_but_not_empty_arguments)
{
  Log_Capture log;
  int pid = -7;
  EXPECT_FALSE(instance_running(nullptr, "DB1", pid));
  log.expect(LM_EMERGENCY, ", oscar_home is NULL:\n");
  EXPECT_FALSE(instance_running("/opt/db", nullptr, pid));
  log.expect(LM_EMERGENCY, ", instance is NULL:\n");
  EXPECT_FALSE(instance_running("", "", pid));
  EXPECT_EQ(pid, -7);
}

TEST(Instance_Running, is_false_without_a_word_when_there_is_no_file)
{
  Log_Capture log;
  const Temp_Dir home;
  int pid = -7;
  EXPECT_FALSE(instance_running(home.path().c_str(), "DB1", pid));
  EXPECT_EQ(log.lines().size(), 0u);
}

TEST(Instance_Running, finds_a_live_process_by_the_first_line)
{
  Log_Capture log;
  int pid = 0;
  const std::string own = std::to_string(::getpid());
  for (const std::string& content : {own + "\n", own, own + "\r\n", own + " DB1\n99\n", own + "\n\n"}) {
    EXPECT_TRUE(runs_with(content, pid)) << content;
    EXPECT_EQ(pid, ::getpid());
  }
  EXPECT_EQ(log.lines().size(), 0u);
}

TEST(Instance_Running, a_process_of_init_counts_as_nobody)
{
  int pid = 0;
  for (const char* content : {"0\n", "1\n", "0001 x\n", "00\n"}) {
    Log_Capture log;
    EXPECT_FALSE(runs_with(content, pid)) << content;
    EXPECT_EQ(pid, -7);
    log.expect_exactly(LM_ERROR, "Failed to find pid.\n");
  }
}

TEST(Instance_Running, needs_digits_at_the_start_of_the_line)
{
  int pid = 0;
  const std::string own = std::to_string(::getpid());
  for (const std::string& content : {"pid=" + own + "\n", " " + own + "\n", "-" + own + "\n",
                                     "+" + own + "\n", "\n" + own + "\n", std::string(200000, ' ') + "\n"}) {
    Log_Capture log;
    EXPECT_FALSE(runs_with(content, pid)) << content.substr(0, 20);
    EXPECT_EQ(pid, -7);
    log.expect_exactly(LM_ERROR, "Failed to find pid.\n");
  }
}

TEST(Instance_Running, a_number_beyond_all_processes_is_dead)
{
  Log_Capture log;
  int pid = 0;
  EXPECT_FALSE(runs_with(std::string(5000, '9') + "\n", pid));
  EXPECT_EQ(pid, 2147483647);
  EXPECT_EQ(log.lines().size(), 0u);
}

TEST(Instance_Running, an_empty_or_unreadable_file_is_reported_by_the_reader)
{
  Log_Capture log;
  log.allow(LM_ERROR, "DB1.db");
  int pid = 0;
  EXPECT_FALSE(runs_with("", pid));
  EXPECT_EQ(log.count(LM_ERROR, "DB1.db"), 1u);
  EXPECT_EQ(log.count("Failed to find pid."), 0u);
}

TEST(Instance_Running, long_names_lose_the_end_of_the_file_name)
{
  const Temp_Dir home;
  const std::string name28(28, 'A');
  home.write("admin/" + name28 + ".db", std::to_string(::getpid()) + "\n");
  home.write("admin/" + name28 + "B.d", std::to_string(::getpid()) + "\n");
  int pid = 0;
  EXPECT_TRUE(instance_running(home.path().c_str(), name28.c_str(), pid));
  EXPECT_TRUE(instance_running(home.path().c_str(), (name28 + "B").c_str(), pid));
  EXPECT_FALSE(instance_running(home.path().c_str(), (name28 + "BC").c_str(), pid));
}

TEST(Get_Instance_State, is_offline_when_the_port_is_unknown)
{
  Log_Capture log;
  const Temp_Dir home;
  home.write("admin/DB1.conf", "port = 0\n");
  std::string state = "?";
  EXPECT_FALSE(get_instance_state(home.path().c_str(), "DB1", state));
  EXPECT_EQ(state, "offline");
  EXPECT_EQ(log.lines().size(), 0u);
}

TEST(Get_Instance_State, checks_its_arguments)
{
  for (const char* missing : {static_cast<const char*>(nullptr), ""}) {
    Log_Capture log;
    std::string state = "?";
    EXPECT_FALSE(get_instance_state(missing, "DB1", state));
    EXPECT_EQ(state, "offline");
    log.expect(LM_EMERGENCY, ", oscar_home is NULL or \"\":\n");
    EXPECT_FALSE(get_instance_state("/opt/db", missing, state));
    log.expect(LM_EMERGENCY, ", instance is NULL or \"\":\n");
  }
}

TEST(Start_Instance, refuses_null_arguments)
{
  Log_Capture log;
  EXPECT_FALSE(start_instance(nullptr, "DB1"));
  log.expect(LM_EMERGENCY, ", oscar_home is NULL:\n");
  EXPECT_FALSE(start_instance("/opt/db", nullptr));
  log.expect(LM_EMERGENCY, ", instance is NULL:\n");
}

TEST(Start_Instance, starts_nothing_when_it_runs_already)
{
  Log_Capture log;
  const Fake_Clock clock;
  Fault_Process_Api api;
  const Temp_Dir home;
  home.write("admin/DB1.db", std::to_string(::getpid()) + "\n");
  EXPECT_TRUE(start_instance(home.path().c_str(), "DB1"));
  EXPECT_EQ(api.requests().size(), 0u);
  EXPECT_EQ(clock.sleeps(), 0u);
  log.expect_exactly(LM_INFO, "Instance DB1 is already running.\n");
}

TEST(Start_Instance, watches_for_fifteen_seconds_although_the_start_failed)
{
  Log_Capture log;
  log.allow(LM_ERROR, "systemctl");
  const Fake_Clock clock;
  Fault_Process_Api api;
  api.fail_all(ENOENT);
  const Temp_Dir home;
  home.write("admin/nosuch.conf", "port = 0\n");
  EXPECT_FALSE(start_instance(home.path().c_str(), "nosuch"));
  EXPECT_EQ(clock.sleeps(), 5u);
  EXPECT_EQ(clock.slept_msec(), 15000);
  const std::vector<kestrel::Spawn_Request> requests = api.requests();
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_EQ(requests[0].argv, (std::vector<std::string>{"systemctl", "start", "oscard@nosuch"}));
  EXPECT_EQ(requests[0].process_group, 0);
  EXPECT_FALSE(requests[0].die_with_parent) << "the server must outlive the agent";
}

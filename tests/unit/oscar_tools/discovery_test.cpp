#include "hostile_text.h"
#include "oscar/instance_info.h"
#include "support/fault_process_api.h"
#include "support/log_capture.h"
#include "support/scoped_env.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <cerrno>

using kestrel_test::Fault_Process_Api;
using kestrel_test::Log_Capture;
using kestrel_test::Scoped_Env;
using kestrel_test::Temp_Dir;

namespace
{
typedef std::map<std::string, json_spirit::Value> Attrs;

void add_service(const std::string& cmd)
{
  std::map<std::string, Oscar_Instance_Info> found;
  Service_Info service;
  service.cmd = cmd;
  oscar::add_instances({service}, found);
  EXPECT_TRUE(found.empty()) << "no tool can be started here";
}

// The home and the instance that discovery reads from a command line, as "home|instance".
std::string read_from(const std::string& cmd)
{
  Log_Capture log;
  Fault_Process_Api api;
  api.fail_all(ENOENT);
  add_service(cmd);
  log.allow(LM_ERROR, "Failed to get OSCAR instance ");
  if (api.requests().size() != 1)
    return "skipped";
  const std::string isql = api.requests()[0].argv[0];
  const std::string home = isql.substr(0, isql.rfind("/bin/isql"));
  const std::string head = "Failed to get OSCAR instance ";
  for (const kestrel_test::Log_Line& line : log.lines()) {
    if (line.priority == LM_ERROR && line.text.compare(0, head.size(), head) == 0)
      return home + "|" + line.text.substr(head.size());
  }
  return "no message";
}

Oscar_Node_Info node(int id, const char* host, const char* status)
{
  return Oscar_Node_Info{id, host, status, "DB1"};
}

// The address that a configuration file with this content gives; "-" when there is none.
std::string vip_in(const std::string& content)
{
  const Temp_Dir home;
  home.write("admin/DB1.conf", content);
  std::string vip = "-";
  const bool found = get_vip_from_conf(home.path().c_str(), "DB1", vip);
  EXPECT_EQ(found, vip != "-");
  return vip;
}
} // namespace

TEST(Discovery, takes_the_home_from_an_absolute_executable)
{
  const Scoped_Env home("SZ_OSCAR_HOME", "/env/home");
  EXPECT_EQ(read_from("/opt/db/bin/oscar -D /data -d DB1"), "/opt/db|DB1 version\n");
  EXPECT_EQ(read_from("  /opt/db/bin/my_oscar -x -d db1 -p 5"), "/opt/db|DB1 version\n");
}

TEST(Discovery, takes_the_home_from_the_environment_otherwise)
{
  const Scoped_Env home("SZ_OSCAR_HOME", "/env/home");
  EXPECT_EQ(read_from("oscar -d db1"), "/env/home|DB1 version\n");
  EXPECT_EQ(read_from("bin/oscar -d db1"), "/env/home|DB1 version\n");
  EXPECT_EQ(read_from("./bin/oscar -d db1"), "/env/home|DB1 version\n");
}

TEST(Discovery, skips_a_service_without_a_home)
{
  const Scoped_Env home("SZ_OSCAR_HOME", nullptr);
  for (const char* cmd : {"oscar -d db1", "/oscar -d db1", "/bin/oscar -d db1"}) {
    Log_Capture log;
    add_service(cmd);
    log.expect_exactly(LM_ERROR, "SZ_OSCAR_HOME is empty, need to configure.\n");
  }
  const Scoped_Env elsewhere("SZ_OSCAR_HOME", "/env/home");
  Log_Capture log;
  add_service("/oscar -d db1");
  log.expect_exactly(LM_ERROR, "SZ_OSCAR_HOME is empty, need to configure.\n");
}

TEST(Discovery, reads_the_instance_name)
{
  const Scoped_Env home("SZ_OSCAR_HOME", "/h");
  EXPECT_EQ(read_from("oscar -d \"ab\""), "/h|AB version\n");
  EXPECT_EQ(read_from("oscar -d \"a\""), "/h|A version\n");
  EXPECT_EQ(read_from("oscar -d \"\""), "/h|\"\" version\n");
  EXPECT_EQ(read_from("oscar -d \""), "/h|\" version\n");
  EXPECT_EQ(read_from("oscar -d \"ab"), "/h|\"AB version\n");
  EXPECT_EQ(read_from("oscar -d a -d b"), "/h|B version\n") << "the last one counts";
  EXPECT_EQ(read_from("oscar -d caf\xc3\xa9"), "/h|CAF\xc3\xa9 version\n");
}

TEST(Discovery, skips_command_lines_of_another_shape)
{
  const Scoped_Env home("SZ_OSCAR_HOME", "/h");
  for (const char* cmd :
       {"/bin/sh /opt/db/bin/oscar -d DB1", "oscar -ddb1", "oscar", "", "oscard -d x", "oscar -d "}) {
    Log_Capture log;
    add_service(cmd);
    log.expect_exactly(LM_ERROR, std::string("Failed to get OSCAR instance info, command line mismatch: ") +
                                     cmd + ".\n");
  }
}

TEST(Discovery, hides_the_password_of_a_command_line_that_it_reports)
{
  Log_Capture log;
  add_service("isql -Usysdba/secret -c oscar -d x");
  log.expect_exactly(LM_ERROR, "Failed to get OSCAR instance info, command line mismatch: "
                               "isql -Usysdba/*** -c oscar -d x.\n");
  EXPECT_FALSE(log.contains("secret"));
}

TEST(Discovery, survives_hostile_command_lines)
{
  const Scoped_Env home("SZ_OSCAR_HOME", "/h");
  const std::string blanks = kestrel_test::many_blanks();
  for (const std::string& cmd : {"oscar" + blanks, std::string(200000, ' '), "oscar" + blanks + "-d",
                                 "isql -Uu/secret oscar -d" + blanks}) {
    Log_Capture log;
    add_service(cmd);
    log.expect(LM_ERROR, "Failed to get OSCAR instance info, command line mismatch: ");
    EXPECT_FALSE(log.contains("secret"));
  }
}

TEST(Discovery, a_service_without_a_port_is_skipped)
{
  Log_Capture log;
  Fault_Process_Api api;
  const Temp_Dir home;
  home.write("admin/DB1.conf", "port = 2010");
  add_service(home / "bin/oscar" + " -d db1");
  log.expect_exactly(LM_ERROR, "Failed to get OSCAR instance DB1 port\n");
  EXPECT_EQ(api.requests().size(), 0u);
}

TEST(Discovery, a_bad_service_does_not_stop_the_others)
{
  Log_Capture log;
  Fault_Process_Api api;
  api.fail_all(ENOENT);
  const Scoped_Env home("SZ_OSCAR_HOME", nullptr);
  std::vector<Service_Info> services(3);
  services[0].cmd = "no such thing";
  services[1].cmd = "oscar -d x";
  services[2].cmd = "/opt/db/bin/oscar -d y";
  std::map<std::string, Oscar_Instance_Info> found;
  oscar::add_instances(services, found);
  log.expect_exactly(LM_ERROR, "Failed to get OSCAR instance info, command line mismatch: no such thing.\n");
  log.expect_exactly(LM_ERROR, "SZ_OSCAR_HOME is empty, need to configure.\n");
  log.expect_exactly(LM_ERROR, "Failed to get OSCAR instance Y version\n");
}

TEST(Find_Vip, reads_the_dotted_address)
{
  Log_Capture log;
  std::string address = "before";
  EXPECT_FALSE(find_vip("ha_server_ip_address = '10.0.0.5'", address));
  EXPECT_EQ(address, "10.0.0.5");
  log.expect_exactly(LM_DEBUG, "Oscar config vip: 10.0.0.5\n");
  EXPECT_FALSE(find_vip(" \tHA_SERVER_IP_ADDRESS=999.1.2.3 \r", address));
  EXPECT_EQ(address, "999.1.2.3");
  EXPECT_FALSE(find_vip("HA_SERVER_IP_ADDRESS = '''1.2.3.4", address));
  EXPECT_EQ(address, "1.2.3.4");
}

TEST(Find_Vip, goes_on_at_every_other_line)
{
  Log_Capture log;
  std::string address = "before";
  for (const std::string& line :
       {std::string(), std::string("HA_SERVER_IP_ADDRESS = host.domain"),
        std::string("HA_SERVER_IP_ADDRESS = 10.0.0"), std::string("HA_SERVER_IP_ADDRESS = 10.0.0.5.6"),
        std::string("HA_SERVER_IP_ADDRESS = \"10.0.0.5\""), std::string("#HA_SERVER_IP_ADDRESS = 10.0.0.5"),
        std::string("HA_SERVER_IP_ADDRESS = 10.0.0.5 # vip"), std::string("HA_SERVER_IP_ADDRESS = fe80::1"),
        std::string(200000, ' '), "HA_SERVER_IP_ADDRESS = " + std::string(200000, '\'')})
    EXPECT_TRUE(find_vip(line, address)) << line.substr(0, 60);
  EXPECT_EQ(address, "before");
  EXPECT_EQ(log.lines().size(), 0u);
}

TEST(Get_Vip_From_Conf, takes_the_first_matching_line)
{
  EXPECT_EQ(vip_in("port = 1\nHA_SERVER_IP_ADDRESS = host\nha_server_ip_address='10.0.0.5'\n"
                   "HA_SERVER_IP_ADDRESS = 10.0.0.6\n"),
            "10.0.0.5");
  EXPECT_EQ(vip_in("HA_SERVER_IP_ADDRESS = 10.0.0.5\r\n"), "10.0.0.5");
  EXPECT_EQ(vip_in("HA_SERVER_IP_ADDRESS = 10.0.0.5"), "10.0.0.5");
}

TEST(Get_Vip_From_Conf, a_file_without_the_key_fails_silently)
{
  Log_Capture log;
  EXPECT_EQ(vip_in(""), "-");
  EXPECT_EQ(vip_in("port = 1\n"), "-");
  EXPECT_EQ(vip_in(std::string(100000, '\0')), "-");
  EXPECT_EQ(log.lines().size(), 0u);
}

TEST(Get_Vip_From_Conf, a_missing_file_is_reported)
{
  Log_Capture log;
  const Temp_Dir home;
  std::string vip = "before";
  EXPECT_FALSE(get_vip_from_conf(home.path().c_str(), "DB1", vip));
  log.expect_exactly(LM_ERROR, "Instance config file " + (home / "admin/DB1.conf") + " does not exist.\n");
  home.make_dir("admin/DB2.conf");
  EXPECT_FALSE(get_vip_from_conf(home.path().c_str(), "DB2", vip));
  log.expect_exactly(LM_ERROR, "Instance config file " + (home / "admin/DB2.conf") + " does not exist.\n");
  EXPECT_EQ(vip, "before");
}

TEST(Get_Vip_From_Conf, long_names_lose_the_end_of_the_file_name)
{
  const Temp_Dir home;
  home.write("admin/" + std::string(27, 'A') + ".con", "HA_SERVER_IP_ADDRESS = 1.2.3.4\n");
  std::string vip;
  EXPECT_TRUE(get_vip_from_conf(home.path().c_str(), std::string(27, 'A').c_str(), vip));
  EXPECT_EQ(vip, "1.2.3.4");
}

TEST(Get_Vip_From_Conf, checks_its_arguments)
{
  for (const char* missing : {static_cast<const char*>(nullptr), ""}) {
    Log_Capture log;
    std::string vip;
    EXPECT_FALSE(get_vip_from_conf(missing, "DB1", vip));
    log.expect(LM_EMERGENCY, ", oscar_home is NULL or \"\":\n");
    EXPECT_FALSE(get_vip_from_conf("/opt/db", missing, vip));
    log.expect(LM_EMERGENCY, ", instance is NULL or \"\":\n");
  }
}

TEST(Get_Cluster_Nodes, needs_a_port)
{
  Log_Capture log;
  const Temp_Dir home;
  home.write("admin/DB1.conf", "");
  std::vector<Oscar_Node_Info> nodes;
  EXPECT_FALSE(get_cluster_nodes(home.path().c_str(), "DB1", "u", "p", "10.0.0.5", nodes));
  log.expect_exactly(LM_ERROR, "Failed to get OSCAR instance DB1 port.\n");
}

TEST(Get_Cluster_Nodes, needs_an_address_when_none_is_given)
{
  Log_Capture log;
  Fault_Process_Api api;
  const Temp_Dir home;
  home.write("admin/DB1.conf", "port = 2010\n");
  std::vector<Oscar_Node_Info> nodes;
  for (const char* address : {static_cast<const char*>(nullptr), ""}) {
    EXPECT_FALSE(get_cluster_nodes(home.path().c_str(), "DB1", "u", "p", address, nodes));
    log.expect_exactly(LM_ERROR, "Failed to get instance DB1 vip from configure.\n");
  }
  EXPECT_EQ(api.requests().size(), 0u);
}

TEST(Get_Cluster_Nodes, asks_at_the_given_address_first_and_then_at_the_configured_one)
{
  Log_Capture log;
  Fault_Process_Api api;
  api.fail_all(ENOENT);
  const Temp_Dir home;
  home.write("admin/DB1.conf", "port = 2010\nHA_SERVER_IP_ADDRESS = 10.0.0.9\n");
  std::vector<Oscar_Node_Info> nodes;
  EXPECT_FALSE(get_cluster_nodes(home.path().c_str(), "DB1", "u", "p", "10.0.0.5", nodes));
  ASSERT_EQ(api.requests().size(), 2u);
  EXPECT_EQ(api.requests()[0].argv[2], "-h10.0.0.5");
  EXPECT_EQ(api.requests()[1].argv[2], "-h10.0.0.9");
  log.expect_exactly(LM_ERROR, "Failed to get oscar cluster nodes, \n");
  log.expect_exactly(LM_ERROR, "Failed to get oscar cluster nodes, \n");
}

TEST(Get_Update_Attrs, says_when_the_nodes_are_unknown)
{
  Log_Capture log;
  const Temp_Dir home;
  home.write("admin/DB1.conf", "port = 2010\n");
  Attrs attrs;
  EXPECT_FALSE(get_update_attrs(home.path().c_str(), "DB1", "u", "p", attrs));
  log.expect_exactly(LM_ERROR, "Failed to get instance DB1 vip from configure.\n");
  log.expect_exactly(LM_ERROR, "Failed to get oscar(DB1) nodes info.\n");
  EXPECT_TRUE(attrs.empty());
}

TEST(Find_Local_Node, finds_a_master_behind_the_local_node)
{
  Attrs attrs;
  EXPECT_TRUE(oscar::find_local_node(
      {"127.0.0.1", "10.0.0.5"},
      {node(1, "10.0.0.4", "slave"), node(2, "10.0.0.5", "slave"), node(3, "10.0.0.6", "master")}, "DB1",
      attrs));
  EXPECT_EQ(attrs, (Attrs{{"instance", "DB1"}, {"node_id", 2}, {"master_id", 3}}));
}

TEST(Find_Local_Node, the_local_node_may_be_the_master)
{
  Attrs attrs;
  EXPECT_TRUE(oscar::find_local_node(
      {"10.0.0.5"}, {node(7, "10.0.0.5", "master"), node(8, "10.0.0.5", "master")}, "DB1", attrs));
  EXPECT_EQ(attrs, (Attrs{{"instance", "DB1"}, {"node_id", 7}, {"master_id", 7}}));
}

TEST(Find_Local_Node, needs_both_the_local_node_and_a_master)
{
  Attrs attrs;
  EXPECT_FALSE(oscar::find_local_node({"10.0.0.5"}, {node(2, "10.0.0.5", "MASTER")}, "DB1", attrs));
  EXPECT_EQ(attrs, (Attrs{{"instance", "DB1"}, {"node_id", 2}}));
  attrs.clear();
  EXPECT_FALSE(oscar::find_local_node({"10.0.0.50"}, {node(2, "10.0.0.5", "master")}, "DB1", attrs));
  EXPECT_EQ(attrs, (Attrs{{"master_id", 2}}));
  attrs.clear();
  EXPECT_FALSE(oscar::find_local_node({}, {node(2, "10.0.0.5", "master")}, "DB1", attrs));
  EXPECT_FALSE(oscar::find_local_node({"10.0.0.5"}, {}, "DB1", attrs));
  EXPECT_TRUE(attrs.empty());
}

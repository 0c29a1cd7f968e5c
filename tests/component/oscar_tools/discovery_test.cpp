#include "base/ignore_result.h"
#include "base/scope_guard.h"
#include "instances/instance_manager.h"
#include "oscar/instance_info.h"
#include "oscar_home.h"
#include "process/process_ex.h"
#include "process/text_process_handler.h"
#include "support/log_capture.h"
#include "support/scoped_env.h"
#include "json/json_util.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

using namespace kestrel_test;

namespace
{
typedef std::map<std::string, json_spirit::Value> Attrs;

// A process that looks like a database server, until the end of the scope.
class Server : public Text_Process_Handler
{
public:
  explicit Server(const std::string& command)
      : Text_Process_Handler(0, 60), process_(6, nullptr, nullptr), opts_(true)
  {
    EXPECT_EQ(opts_.command_line("%s", command.c_str()), 0);
    EXPECT_EQ(spawn(&process_, opts_, nullptr), 0);
  }
  ~Server() override { kestrel::ignore_result(terminate(10), "the destructor of the base kills it"); }

private:
  ACE_Process_Ex process_;
  ACE_Process_Options opts_;
};

// Another server on this host, such as one of another test, is no concern of these tests.
void allow_strangers(Log_Capture& log)
{
  log.allow(LM_ERROR, "Failed to get OSCAR instance");
  log.allow(LM_ERROR, "SZ_OSCAR_HOME is empty");
}

// The registry with or without one instance in it.
class Fixed_Registry : public Instance_Manager
{
public:
  explicit Fixed_Registry(bool knows) : knows_(knows), previous_(kestrel::set_instance_manager_for_test(this))
  {
  }
  ~Fixed_Registry() override { kestrel::set_instance_manager_for_test(previous_); }
  std::shared_ptr<Instance> find(const std::string& type, const std::string& name) override
  {
    asked_.push_back(type + "/" + name);
    return knows_ ? std::make_shared<Instance>() : nullptr;
  }
  const std::vector<std::string>& asked() const { return asked_; }

private:
  const bool knows_;
  Instance_Manager* const previous_;
  std::vector<std::string> asked_;
};

const char Version_Isql[] = "if args_match \"^--version$\"\nout \"isql 9 (build 5.7.2) for Linux\"\nend\n";
} // namespace

TEST(Discovery, finds_a_running_server)
{
  Log_Capture log;
  allow_strangers(log);
  const Oscar_Home home;
  const std::string name = "kt" + std::to_string(::getpid());
  home.tool("isql", Version_Isql);
  const std::string oscar = home.tool("oscar", "write_file " + home / "up" + " yes\nhang");
  const Server server(oscar + " -D " + home / "data" + " -d " + name + " -x");
  ASSERT_TRUE(wait_for_file(home / "up"));

  std::map<std::string, Oscar_Instance_Info> found;
  found["OLD"].version = "kept";
  EXPECT_TRUE(get_instance_info(found, "C"));
  EXPECT_EQ(found["OLD"].version, "kept");
  const std::string key = "KT" + name.substr(2);
  ASSERT_EQ(found.count(key), 1u);
  EXPECT_EQ(found[key].oscar_home, home.path());
  EXPECT_EQ(found[key].instance, key);
  EXPECT_EQ(found[key].version, "5.7.2");
}

TEST(Discovery, takes_the_home_of_a_relative_server_from_the_environment)
{
  const Oscar_Home home;
  home.tool("isql", Version_Isql);
  const Scoped_Env environment("SZ_OSCAR_HOME", home.path());
  std::vector<Service_Info> services(2);
  services[0].cmd = "oscar -d \"ab\"";
  services[1].cmd = "bin/oscar -d ab";
  std::map<std::string, Oscar_Instance_Info> found;
  found["AB"].version = "old";
  oscar::add_instances(services, found);
  ASSERT_EQ(found.size(), 1u);
  EXPECT_EQ(found["AB"].oscar_home, home.path());
  EXPECT_EQ(found["AB"].version, "5.7.2");
}

TEST(Discovery, a_server_whose_isql_fails_is_skipped)
{
  Log_Capture log;
  const Oscar_Home home;
  home.tool("isql", "exit 1");
  std::vector<Service_Info> services(1);
  services[0].cmd = home / "bin/oscar" + " -d DB1";
  std::map<std::string, Oscar_Instance_Info> found;
  oscar::add_instances(services, found);
  EXPECT_TRUE(found.empty());
  log.expect_exactly(LM_ERROR, "Failed to get OSCAR instance DB1 version\n");
}

TEST(Discovery, fails_only_when_there_is_no_list_of_services)
{
  Log_Capture log;
  rlimit before = {};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
  const int next = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  ASSERT_GE(next, 0);
  ::close(next);
  std::map<std::string, Oscar_Instance_Info> found;
  {
    // No descriptor is left for the process table.
    rlimit none_left = before;
    none_left.rlim_cur = static_cast<rlim_t>(next);
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none_left), 0);
    const kestrel::Scope_Guard restore([&] { ::setrlimit(RLIMIT_NOFILE, &before); });
    EXPECT_FALSE(get_instance_info(found, "C"));
  }
  EXPECT_TRUE(found.empty());
  log.expect_exactly(LM_ERROR, "Failed to list service.\n");
}

TEST(Cluster_Nodes, are_asked_at_the_given_address_only_if_it_answers)
{
  Log_Capture log;
  const Oscar_Home home;
  home.dir().write("admin/DB1.conf", "port = 2010\nHA_SERVER_IP_ADDRESS = '10.0.0.9'\n");
  home.tool("isql", "append_file " + home / "asked" +
                        " \"${arg:2} \"\nif args_contain h10.0.0.1\nexit 1\nend\n"
                        "out H\nout -\nout \"1|10.0.0.5|master\"\nout \"(1 row)\"");
  std::vector<Oscar_Node_Info> nodes;
  EXPECT_TRUE(get_cluster_nodes(home.path(), "DB1", "u", "p", "10.0.0.5", nodes));
  EXPECT_EQ(nodes.size(), 1u);
  EXPECT_TRUE(get_cluster_nodes(home.path(), "DB1", "u", "p", "10.0.0.1", nodes));
  EXPECT_TRUE(get_cluster_nodes(home.path(), "DB1", "u", "p", nullptr, nodes));
  EXPECT_EQ(nodes.size(), 3u);
  EXPECT_EQ(read_file(home / "asked"), "-h10.0.0.5 -h10.0.0.1 -h10.0.0.9 -h10.0.0.9 ");
  log.expect_exactly(LM_ERROR, "Failed to get oscar cluster nodes, \n");
  log.expect_exactly(LM_DEBUG, "Oscar config vip: 10.0.0.9\n");
}

TEST(Update_Attrs, tells_which_node_this_host_is)
{
  Log_Capture log;
  const Fixed_Registry registry(false);
  const Oscar_Home home;
  home.dir().write("admin/DB1.conf", "port = 2010\nHA_SERVER_IP_ADDRESS = 10.0.0.9\n");
  home.isql_answers({"4 | 192.0.2.1 | master", "6 | 127.0.0.1 | slave"});
  Attrs attrs;
  attrs["other"] = "kept";
  EXPECT_TRUE(get_update_attrs(home.path(), "DB1", "u", "p", attrs));
  EXPECT_EQ(attrs, (Attrs{{"other", "kept"}, {"instance", "DB1"}, {"node_id", 6}, {"master_id", 4}}));
  EXPECT_EQ(registry.asked(), std::vector<std::string>{"oscar/DB1"});
}

TEST(Update_Attrs, an_instance_that_the_registry_cannot_update_is_still_an_answer)
{
  Log_Capture log;
  log.allow(LM_ERROR, "");
  const Fixed_Registry registry(true);
  const Temp_Dir root;
  const Scoped_Env environment("KESTREL_ROOT", root.path());
  const Oscar_Home home;
  home.dir().write("admin/DB1.conf", "port = 2010\nHA_SERVER_IP_ADDRESS = 10.0.0.9\n");
  home.isql_answers({"6 | 127.0.0.1 | master"});
  Attrs attrs;
  EXPECT_TRUE(get_update_attrs(home.path(), "DB1", "u", "p", attrs));
  EXPECT_EQ(attrs.size(), 3u);
}

TEST(Update_Attrs, a_cluster_without_this_host_is_reported)
{
  Log_Capture log;
  const Fixed_Registry registry(false);
  const Oscar_Home home;
  home.dir().write("admin/DB1.conf", "port = 2010\nHA_SERVER_IP_ADDRESS = 10.0.0.9\n");
  home.isql_answers({"4 | 192.0.2.1 | master"});
  Attrs attrs;
  EXPECT_FALSE(get_update_attrs(home.path(), "DB1", "u", "p", attrs));
  log.expect_exactly(LM_ERROR, "Failed to get oscar(DB1) update attrs.\n");
  EXPECT_TRUE(registry.asked().empty());
}

#include "oscar/instance/oscar_instance_handler.h"

#include "base/scope_guard.h"
#include "instances/instance_manager.h"
#include "instances/instance_registry.h"
#include "process/process_api.h"
#include "support/fake_tool.h"
#include "support/log_capture.h"
#include "support/oscar_server.h"
#include "support/scoped_env.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <stdexcept>
#include <sys/resource.h>
#include <unistd.h>

using json_spirit::Value;
using kestrel_test::Log_Capture;
using kestrel_test::make_fake_tool;
using kestrel_test::Oscar_Server;
using kestrel_test::Temp_Dir;

namespace
{
typedef std::map<std::string, Value> Values;
typedef std::map<std::string, std::shared_ptr<Instance>> Instances;

// A name for the private list: the arguments of an explicit instantiation are not checked for access.
typedef std::map<std::string, Oscar_Instance_Info> Found_Instances;
template <Found_Instances Oscar_Instance_Handler::*LIST> struct List_Access {
  friend Found_Instances& found_instances(Oscar_Instance_Handler& handler) { return handler.*LIST; }
};
Found_Instances& found_instances(Oscar_Instance_Handler& handler);
template struct List_Access<&Oscar_Instance_Handler::inst_infos_>;

const char version_script[] = "if args_contain --version\n"
                              "out \"isql (OSCAR) 9.1 (build 5.7.2) for Linux\"\n"
                              "exit 0\n"
                              "end\n";

class Instance_Handler_With_Tools : public testing::Test
{
protected:
  Instance_Handler_With_Tools() : name_("KT" + std::to_string(::getpid()))
  {
    home_.write("admin/" + name_ + ".conf", "port = 2100\nHA_SERVER_IP_ADDRESS = '127.0.0.1'\n");
    // Servers of others on this host may be unreadable for us.
    log_.allow(LM_ERROR, "Failed to get OSCAR instance");
    log_.allow(LM_ERROR, "SZ_OSCAR_HOME is empty");
    log_.allow(LM_WARNING, "");
  }

  void isql(const std::string& rest) { make_fake_tool(home_, "bin/isql", version_script + rest); }

  Instances probe()
  {
    Instances instances;
    EXPECT_EQ(handler_.probe_instances(instances), 0);
    return instances;
  }

  /// Makes the handler know the instance.
  void find_instance()
  {
    Oscar_Server server(home_, name_);
    ASSERT_EQ(probe().count(name_), 1u);
  }

  /// Makes the registry know it.
  void register_instance()
  {
    auto instance = std::make_shared<Instance>();
    instance->type = "oscar";
    instance->name = name_;
    instance->options["oscar_home"] = home_.path();
    std::string error;
    ASSERT_EQ(kestrel::Instance_Registry("host").merge_probe({{name_, instance}}, error), 0) << error;
  }

  const Temp_Dir root_;
  const kestrel_test::Scoped_Env env_{"KESTREL_ROOT", root_.path()};
  const Temp_Dir home_;
  const std::string name_;
  Log_Capture log_;
  Oscar_Instance_Handler handler_;
};
} // namespace

TEST_F(Instance_Handler_With_Tools, reports_a_running_instance_with_home_and_version)
{
  isql("");
  std::string lower = name_;
  lower[0] = 'k';
  Oscar_Server server(home_, lower);
  const Instances instances = probe();
  ASSERT_EQ(instances.count(name_), 1u) << "names are upper case";
  const Instance& instance = *instances.at(name_);
  EXPECT_EQ(instance.type, "oscar");
  EXPECT_EQ(instance.name, name_);
  EXPECT_EQ(instance.uuid, "");
  EXPECT_EQ(instance.options, (Values{{"oscar_home", home_.path()}, {"version", "5.7.2"}}));
}

TEST_F(Instance_Handler_With_Tools, replaces_what_the_caller_had_under_the_name)
{
  isql("");
  Oscar_Server server(home_, name_);
  Instances instances;
  instances[name_] = std::make_shared<Instance>();
  instances["OTHER"] = nullptr;
  EXPECT_EQ(handler_.probe_instances(instances), 0);
  EXPECT_EQ(instances[name_]->type, "oscar");
  EXPECT_EQ(instances.count("OTHER"), 1u);
}

TEST_F(Instance_Handler_With_Tools, a_probe_fails_without_a_list_of_services)
{
  rlimit before = {};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
  const int next = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  ASSERT_GE(next, 0);
  ::close(next);
  Instances instances;
  {
    // No descriptor is left for the process table.
    rlimit none_left = before;
    none_left.rlim_cur = static_cast<rlim_t>(next);
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none_left), 0);
    const kestrel::Scope_Guard restore([&] { ::setrlimit(RLIMIT_NOFILE, &before); });
    EXPECT_EQ(handler_.probe_instances(instances), -1);
  }
  EXPECT_TRUE(instances.empty());
  EXPECT_TRUE(log_.expect_exactly(LM_ERROR, "Failed to list service.\n"));
  EXPECT_TRUE(log_.expect_exactly(LM_ERROR, "Failed to get instance info.\n"));
}

TEST_F(Instance_Handler_With_Tools, no_exception_leaves_a_probe)
{
  class Throwing_Api : public kestrel::Process_Api
  {
  public:
    pid_t spawn(const kestrel::Spawn_Request&) override { throw std::runtime_error("too many 100%s"); }
  };
  Oscar_Server server(home_, name_);
  Throwing_Api api;
  const kestrel::Scoped_Process_Api scope(api);
  Instances instances;
  EXPECT_EQ(handler_.probe_instances(instances), -1);
  EXPECT_TRUE(instances.empty());
  EXPECT_TRUE(log_.expect_exactly(LM_ERROR, "Failed to get instance info, exception: too many 100%s.\n"));
}

TEST_F(Instance_Handler_With_Tools, still_reports_an_instance_that_has_gone)
{
  isql("");
  {
    Oscar_Server server(home_, name_);
    EXPECT_EQ(probe().count(name_), 1u);
  }
  EXPECT_EQ(probe().count(name_), 1u);
  Instances of_a_new_handler;
  Oscar_Instance_Handler other;
  EXPECT_EQ(other.probe_instances(of_a_new_handler), 0);
  EXPECT_EQ(of_a_new_handler.count(name_), 0u);
}

TEST_F(Instance_Handler_With_Tools, a_login_succeeds_when_isql_does)
{
  isql("dump_args ${dir}/args\nexit 0\n");
  find_instance();
  Values extra;
  EXPECT_EQ(handler_.logon(name_.c_str(), "SYSDBA", "secret-word", extra), 0);
  EXPECT_TRUE(extra.empty());
  EXPECT_NE(kestrel_test::read_file(home_ / "bin/args").find("-USYSDBA/secret-word"), std::string::npos);
  EXPECT_FALSE(log_.contains("secret-word"));
}

TEST_F(Instance_Handler_With_Tools, a_refused_login_leaves_the_reason_of_isql)
{
  isql("err \"isql: ERROR, wrong password\"\nexit 1\n");
  find_instance();
  log_.allow(LM_ERROR, "isql: ERROR, wrong password");
  log_.allow(LM_ERROR, "Failed to execute");
  Values extra;
  EXPECT_EQ(handler_.logon(name_.c_str(), "SYSDBA", "secret-word", extra), -1);
  EXPECT_EQ(handler_.error(), "Error, wrong password.");
  EXPECT_FALSE(log_.contains("secret-word"));
}

TEST_F(Instance_Handler_With_Tools, a_login_needs_the_exact_name)
{
  isql("exit 0\n");
  find_instance();
  std::string lower = name_;
  lower[0] = 'k';
  Values extra;
  EXPECT_EQ(handler_.logon(lower.c_str(), "u", "p", extra), -1);
  EXPECT_EQ(handler_.error(), "Instance " + lower + " not found");
  EXPECT_TRUE(log_.expect_exactly(LM_ERROR, "Instance " + lower + " not found.\n"));
}

// What a probe finds always has a home; the check stands for whatever else may fill the list one day.
TEST_F(Instance_Handler_With_Tools, a_login_needs_the_home_of_the_instance)
{
  isql("exit 0\n");
  find_instance();
  found_instances(handler_).at(name_).oscar_home.clear();
  Values extra;
  EXPECT_EQ(handler_.logon(name_.c_str(), "u", "secret-word", extra), -1);
  EXPECT_EQ(handler_.error(), "SZ_OSCAR_HOME of " + name_ + " is empty");
  EXPECT_TRUE(log_.expect_exactly(LM_ERROR, "SZ_OSCAR_HOME of " + name_ + " is empty.\n"));
}

TEST_F(Instance_Handler_With_Tools, update_options_adds_the_node_of_this_host_and_registers_it)
{
  isql("out NODE_ID|ADDRESS|STATUS\nout -------\nout \" 1 | 10.9.8.7 | master \"\n"
       "out \" 2 | 127.0.0.1 | slave \"\nout \"(2 rows)\"\n");
  register_instance();
  Values options = {{"node_id", 9}, {"kept", "x"}};
  EXPECT_EQ(handler_.update_options(name_.c_str(), "SYSDBA", "secret-word", options), 0);
  EXPECT_EQ(options, (Values{{"instance", name_}, {"node_id", 2}, {"master_id", 1}, {"kept", "x"}}));

  const std::shared_ptr<Instance> registered = Instance_Manager::instance()->find("oscar", name_);
  ASSERT_TRUE(registered);
  EXPECT_EQ(registered->options["node_id"], Value(2));
  EXPECT_EQ(registered->options["master_id"], Value(1));
  EXPECT_EQ(registered->options["oscar_home"], Value(home_.path()));
  EXPECT_FALSE(log_.contains("secret-word"));
}

TEST_F(Instance_Handler_With_Tools, update_options_fails_where_the_nodes_cannot_be_asked)
{
  isql("err \"isql: ERROR, no such view\"\nexit 1\n");
  register_instance();
  log_.allow(LM_ERROR, "isql: ERROR, no such view");
  log_.allow(LM_ERROR, "Failed to get oscar");
  Values options = {{"kept", "x"}};
  EXPECT_EQ(handler_.update_options(name_.c_str(), "SYSDBA", "secret-word", options), -1);
  EXPECT_TRUE(log_.expect_exactly(LM_ERROR, "Failed to update options, instance = '" + name_ + "'\n"));
  EXPECT_EQ(options, (Values{{"kept", "x"}}));
  EXPECT_FALSE(log_.contains("secret-word"));
}

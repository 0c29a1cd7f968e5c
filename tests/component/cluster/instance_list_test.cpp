#include "base/scope_guard.h"
#include "oscar/websvcs/list_handler.h"
#include "service_call.h"
#include "support/loopback.h"
#include "support/oscar_server.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

using namespace kestrel_test;

/// The list of the instances that run on this host. Those of others are left out of what is compared.
class Instance_List : public Service_Call
{
protected:
  Instance_List()
  {
    make_fake_tool(home_, "bin/isql",
                   "if args_match \"^--version$\"\nout \"isql 9 (build 5.7.2) for Linux\"\nend\n");
    log_.allow(LM_ERROR, "Failed to get OSCAR instance");
    log_.allow(LM_ERROR, "SZ_OSCAR_HOME is empty");
    log_.allow(LM_WARNING, "");
  }

  /// The name begins so that its place among the names is known.
  std::string name(const std::string& begin) const { return begin + std::to_string(::getpid()); }

  /// The entries of this test's instances, in the order in which they came.
  std::string own_entries(const std::string& text) const
  {
    json_spirit::Value message;
    std::string error;
    EXPECT_TRUE(kestrel::read_json(text, message, error)) << text;
    const json_spirit::Value& result = json_spirit::find_value(message.get_obj(), "result");
    EXPECT_EQ(result.type(), json_spirit::array_type) << text;
    json_spirit::Array own;
    for (const json_spirit::Value& entry : result.get_array()) {
      const std::string instance = json_spirit::find_value(entry.get_obj(), "instance").get_str();
      if (instance.find(std::to_string(::getpid())) != std::string::npos)
        own.push_back(entry);
    }
    return kestrel::write_json(own);
  }

  JSON_RPC_Oscar_List_Handler list_;
};

TEST_F(Instance_List, tells_name_port_version_and_state_in_order_of_the_names)
{
  const Loopback_Listener listener;
  const std::string port = std::to_string(listener.port());
  home_.write("admin/" + name("AA") + ".conf", "port = " + port + "\n");
  home_.write("admin/" + name("ZZ") + ".conf", "port = 1\n");

  const Oscar_Server last(home_, name("ZZ"));
  const Oscar_Server first(home_, name("aa"));
  EXPECT_EQ(own_entries(ask(list_, "")),
            "[{\"instance\":\"" + name("AA") + "\",\"port\":" + port +
                ",\"version\":\"5.7.2\",\"status\":\"online\"},{\"instance\":\"" + name("ZZ") +
                "\",\"port\":1,\"version\":\"5.7.2\",\"status\":\"offline\"}]");
  EXPECT_EQ(result_, 0);
  EXPECT_FALSE(log_.contains("secret-word"));
}

TEST_F(Instance_List, an_instance_without_a_configuration_has_the_default_port)
{
  const Oscar_Server server(home_, name("NC"));
  const std::string entries = own_entries(ask(list_, ""));
  EXPECT_NE(entries.find("\"port\":2003"), std::string::npos) << entries;
}

TEST_F(Instance_List, a_port_that_cannot_be_read_any_more_is_zero)
{
  // The instance is found while its port can be read; the version probe then spoils the file.
  const std::string conf = "admin/" + name("SP") + ".conf";
  home_.write(conf, "port = 2100\n");
  make_fake_tool(home_, "bin/isql",
                 "write_file " + home_ / conf + " port=2100\nout \"isql 9 (build 5.7.2) for Linux\"\n");
  const Oscar_Server server(home_, name("SP"));
  const std::string entries = own_entries(ask(list_, ""));
  EXPECT_NE(entries.find("\"port\":0,\"version\":\"5.7.2\",\"status\":\"offline\""), std::string::npos)
      << entries;
}

TEST_F(Instance_List, is_empty_where_no_server_runs)
{
  std::string text;
  if (!without_processes([&] { text = ask(list_, ""); }))
    GTEST_SKIP() << "needs root";
  EXPECT_EQ(text, answer("[]"));
}

TEST_F(Instance_List, fails_without_the_table_of_processes)
{
  rlimit before = {};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
  const int next = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  ASSERT_GE(next, 0);
  ::close(next);
  std::string text;
  {
    rlimit none_left = before;
    none_left.rlim_cur = static_cast<rlim_t>(next);
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none_left), 0);
    const kestrel::Scope_Guard restore([&] { ::setrlimit(RLIMIT_NOFILE, &before); });
    text = ask(list_, "");
  }
  EXPECT_EQ(text, refusal(-32603, "Failed to get instance info"));
  EXPECT_TRUE(log_.expect_exactly(LM_ERROR, "Failed to list service.\n"));
  EXPECT_TRUE(log_.expect_exactly(LM_ERROR, "Failed to get instance info.\n"));
}

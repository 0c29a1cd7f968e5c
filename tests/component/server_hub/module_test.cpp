#include "server_fixture.h"

#include "instances/instance_registry.h"
#include "oscar/oscar_cluster_node_manager.h"
#include "oscar/websvcs/oscar_node_handler.h"
#include "oscar/websvcs/oscar_notify_node_handler.h"
#include "remote/upstream.h"
#include "support/fake_tool.h"

#include <arpa/inet.h>
#include <atomic>
#include <netinet/in.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

using namespace kestrel_test;

namespace
{
constexpr const char* USER = "99999999-2222-4333-8444-555555555555";

/// The module's own manager and handlers on one agent: instance DB1, node 7 of its cluster, at this host's
/// loopback address.
class Served_Module : public Server_Fixture
{
protected:
  ~Served_Module() override
  {
    kestrel::unregister_upstream();
    agents_.clear(); // its handlers are ours
    if (listener_ >= 0)
      ::close(listener_);
  }

  void SetUp() override
  {
    Server_Fixture::SetUp();
    make_fake_tool(home_, "bin/isql",
                   "out NODE_ID|ADDRESS|STATUS\nout -------\nout \" 8 | 10.9.8.7 | slave \"\n"
                   "out \" 7 | 127.0.0.1 | master \"\nout \"(2 rows)\"\n");
    home_.write("admin/DB1.conf",
                "port = " + std::to_string(listen()) + "\nHA_SERVER_IP_ADDRESS = '10.9.8.1'\n");
    auto instance = std::make_shared<Instance>();
    instance->type = "oscar";
    instance->name = "DB1";
    instance->options["oscar_home"] = home_.path();
    instance->options["version"] = "2.5.6";
    std::string error;
    ASSERT_EQ(registry_.merge_probe({{"DB1", instance}}, error), 0) << error;
    ASSERT_EQ(registry_.set_account("oscar", "DB1", "", "SYSDBA", "secret-word", error), 0) << error;

    Simulated_Agent& agent = add_agent("db1");
    agent.on("oscar.node.check_state", &check_state_);
    agent.on("oscar.node.notify_selected", &notify_);
    kestrel::Upstream_Options upstream;
    upstream.url = agent.enrollment().url;
    upstream.ca_pem = agent.enrollment().ca_pem;
    upstream.access_key = agent.enrollment().credential();
    ASSERT_TRUE(kestrel::register_upstream(upstream, error)) << error;
    connect(agent);
  }

  /// The instance answers on this port. Only one does, so that it counts as online.
  unsigned short listen()
  {
    listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    EXPECT_EQ(::bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    EXPECT_EQ(::listen(listener_, 16), 0);
    EXPECT_EQ(::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length), 0);
    return ntohs(address.sin_port);
  }

  static bool selected(const std::string& job, std::string& state, bool select_master = true,
                       bool backup = true)
  {
    return oscar::Oscar_Cluster_Node_Manager::instance()->is_selected_node("DB1", job, USER, state,
                                                                           select_master, backup);
  }

  const Temp_Dir home_;
  kestrel::Instance_Registry registry_{"host-1"};
  JSON_RPC_Oscar_Node_Handler check_state_;
  JSON_RPC_Oscar_Notify_Node_Handler notify_;
  int listener_ = -1;
};
} // namespace

TEST_F(Served_Module, the_manager_asks_and_hears_while_it_holds_its_lock)
{
  const std::string job = define();
  std::string state;
  EXPECT_TRUE(selected(job, state));
  EXPECT_EQ(state, "success");
  EXPECT_EQ(member_number(last_selection(), "node_id"), 7);
}

TEST_F(Served_Module, several_jobs_of_one_agent_are_decided_at_the_same_time)
{
  std::vector<std::string> jobs;
  for (int i = 0; i < 4; ++i)
    jobs.push_back(define());
  std::atomic<int> working{0};
  std::vector<std::string> states(jobs.size());
  std::vector<std::thread> threads;
  for (size_t i = 0; i < jobs.size(); ++i)
    threads.emplace_back([&, i] { working += selected(jobs[i], states[i]); });
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_EQ(working, 4);
  for (const std::string& state : states)
    EXPECT_EQ(state, "success");
}

TEST_F(Served_Module, another_node_that_is_the_master_by_its_own_word_takes_the_job)
{
  home_.write("admin/DB1.conf", "port = 1\nHA_SERVER_IP_ADDRESS = '10.9.8.1'\n");
  Simulated_Agent& other = add_agent("db2");
  other.set_node(8, true, true);
  connect(other);
  const std::string job = define();
  std::string state;
  std::thread asking([&] { EXPECT_NE(request(other, job, true), 0); });
  EXPECT_FALSE(selected(job, state));
  asking.join();
  EXPECT_EQ(state, "success");
  ASSERT_TRUE(other.await_announcements(1));
  EXPECT_EQ(member_number(other.announcements()[0], "node_id"), 8);
}

TEST_F(Served_Module, nobody_works_when_the_only_node_is_down)
{
  agent(0).disconnect();
  shorten_window();
  connect(agent(0));
  home_.write("admin/DB1.conf", "port = 1\nHA_SERVER_IP_ADDRESS = '10.9.8.1'\n");
  const std::string job = define();
  std::string state;
  EXPECT_FALSE(selected(job, state));
  EXPECT_EQ(state, "failed");
}

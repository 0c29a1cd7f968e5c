#include "agent/agent_jobs.h"
#include "agent/agent_services.h"
#include "agent/instance_service.h"
#include "agent/module_table.h"
#include "agent/server_link.h"
#include "component/cluster/cluster_fixture.h"
#include "oscar/websvcs/oscar_notify_node_handler.h"
#include "rpc/json_rpc_dispatcher.h"
#include "scripted_server.h"
#include "support/waiting.h"

#include <atomic>
#include <thread>

using namespace kestrel_test;
using namespace kestrel;

namespace
{
/// A pause of the waiting job lasts until the announcement has been answered, however slow the machine is.
class Patient_Clock : public Clock
{
public:
  explicit Patient_Clock(const std::atomic<bool>& answered) : answered_(answered) {}
  void sleep_msec(int64_t) override
  {
    EXPECT_TRUE(eventually([this] { return answered_.load(); }));
  }

private:
  const std::atomic<bool>& answered_;
  Scoped_Clock scope_{*this};
};

class Announcement_Test : public Cluster_Fixture
{
protected:
  Announcement_Test()
  {
    Agent_Services::Identity identity;
    identity.name = "db1";
    services_ = std::make_unique<Agent_Services>(identity, jobs_, instances_);
    std::string error;
    EXPECT_TRUE(services_->bind(dispatcher_, {{"oscar.node.notify_selected", &handler_}}, error)) << error;
    EXPECT_TRUE(dispatcher_.start_with_defaults());
    EXPECT_TRUE(network_.start());
    Server_Link::Settings settings;
    settings.url = agent_server_.url();
    settings.access = Agent_Server::access();
    settings.tls.ca_pem = agent_server_.ca_pem();
    Link_Host host;
    host.hello = [this] { return services_->hello(); };
    host.unsent_runs = [](unsigned) { return json_spirit::Array(); };
    link_ = std::make_unique<Server_Link>(settings, host, dispatcher_, network_, nullptr);
    link_->start();
  }
  ~Announcement_Test() override
  {
    link_.reset();
    EXPECT_TRUE(dispatcher_.stop());
    network_.stop();
  }

  static json_spirit::Object announcement(const char* job)
  {
    json_spirit::Object params;
    set_value(params, "definition_uuid", job);
    set_value(params, "instance", "DB1");
    set_value(params, "host_uuid", "host-uuid");
    set_value(params, "state", "success");
    set_value(params, "node_id", 7);
    set_value(params, "selection_time", 1700000005);
    return params;
  }

  JSON_RPC_Oscar_Notify_Node_Handler handler_;
  Module_Table modules_;
  Agent_Jobs jobs_{modules_, Agent_Jobs::Settings()};
  Instance_Service instances_{registry_, {}};
  std::unique_ptr<Agent_Services> services_;
  JSON_RPC_Dispatcher dispatcher_;
  Network_Threads network_;
  Agent_Server agent_server_;
  std::unique_ptr<Server_Link> link_;
};

TEST_F(Announcement_Test, reaches_a_job_that_asks_the_server_at_that_moment_and_holds_up_nothing)
{
  ASSERT_TRUE(agent_server_.wait_greeting());
  std::atomic<bool> asked{false};
  std::atomic<bool> go_on{false};
  std::atomic<bool> answered{false};
  server_->when_asked = [&] {
    asked = true;
    EXPECT_TRUE(eventually([&] { return go_on.load(); }));
  };
  const Patient_Clock clock(answered);
  bool selected = false;
  std::thread job([&] { selected = is_selected(); });
  ASSERT_TRUE(eventually([&] { return asked.load(); }));

  // The job's thread holds what the announcement needs; two of them wait for it now.
  std::atomic<unsigned> waiting{0};
  const auto announce = [&](const char* name) {
    ++waiting;
    const json_spirit::Object answer = agent_server_.call("oscar.node.notify_selected", announcement(name));
    EXPECT_EQ("true", write_json(json_spirit::find_value(answer, "result")));
    --waiting;
  };
  std::thread other([&] { announce("other"); });
  std::thread mine([&] {
    announce(JOB);
    answered = true;
  });
  ASSERT_TRUE(eventually([&] { return dispatcher_.statistics().running == 2; }));
  const json_spirit::Object status = agent_server_.call("agent.status");
  EXPECT_TRUE(json_spirit::find_value(status, "error").is_null()) << write_json(status);
  EXPECT_EQ(2u, waiting.load());
  EXPECT_FALSE(answered);

  go_on = true;
  mine.join();
  other.join();
  job.join();
  EXPECT_TRUE(selected);
  EXPECT_EQ("success", state_);
}
} // namespace

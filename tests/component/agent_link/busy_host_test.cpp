#include "agent/agent_jobs.h"
#include "agent/agent_services.h"
#include "agent/instance_service.h"
#include "agent/module_table.h"
#include "component/cluster/cluster_fixture.h"
#include "rpc/json_rpc_dispatcher.h"
#include "support/memory_channel.h"
#include "support/waiting.h"

#include <atomic>

using namespace kestrel_test;
using namespace kestrel;

namespace
{
/// A module's handler that answers when it is let go.
class Held_Handler : public JSON_RPC_Handler
{
public:
  int handle_object(ACE_Weak_Bound_Ptr<JSON_RPC_Channel, ACE_Thread_Mutex> channel,
                    ACE_Refcounted_Auto_Ptr<JSON_RPC_Object, ACE_Recursive_Thread_Mutex> object) override
  {
    ++inside;
    EXPECT_TRUE(eventually([this] { return go_on.load(); }));
    const ACE_Strong_Bound_Ptr<JSON_RPC_Channel, ACE_Thread_Mutex> strong(channel);
    return strong->send_error(-1, object->request()->id(), "held", json_spirit::Value());
  }
  std::atomic<unsigned> inside{0};
  std::atomic<bool> go_on{false};
};

class Busy_Host : public Cluster_Fixture
{
protected:
  Module_Table modules_;
  Agent_Jobs jobs_{modules_, Agent_Jobs::Settings()};
  Instance_Service instances_{registry_, {}};
  Agent_Services services_{Agent_Services::Identity(), jobs_, instances_};
  Held_Handler browsing_, node_state_;
};
} // namespace

TEST_F(Busy_Host, that_people_browse_still_tells_the_state_of_its_node)
{
  std::string error;
  JSON_RPC_Dispatcher dispatcher;
  ASSERT_TRUE(
      services_.bind(dispatcher, {{"oscar.list", &browsing_}, {"oscar.node.check_state", &node_state_}}, error))
      << error;
  JSON_RPC_Dispatcher::Options options;
  options.threads = Agent_Services::slow_limit + Agent_Services::node_state_limit + 2;
  ASSERT_TRUE(dispatcher.start(options));
  const auto channel = std::make_shared<Memory_Channel>();
  for (unsigned i = 0; i < Agent_Services::slow_limit; ++i)
    dispatcher.receive(channel, R"({"jsonrpc":"2.0","method":"oscar.list","id":1})");
  EXPECT_TRUE(eventually([&] { return browsing_.inside == Agent_Services::slow_limit; }));
  dispatcher.receive(channel, R"({"jsonrpc":"2.0","method":"oscar.list","id":2})");
  ASSERT_EQ(1u, channel->wait_sent(1).size());
  EXPECT_NE(std::string::npos, channel->sent()[0].find("-32000")) << channel->sent()[0];
  node_state_.go_on = true;
  dispatcher.receive(channel, R"({"jsonrpc":"2.0","method":"oscar.node.check_state","id":3})");
  EXPECT_NE(std::string::npos, channel->wait_sent(2)[1].find("held")) << channel->wait_sent(2)[1];
  browsing_.go_on = true;
  EXPECT_EQ(2 + Agent_Services::slow_limit, channel->wait_sent(2 + Agent_Services::slow_limit).size());
  EXPECT_TRUE(dispatcher.stop());
}

#include "agent/agent_jobs.h"
#include "agent/agent_services.h"
#include "agent/instance_service.h"
#include "agent/module_table.h"
#include "base/secure_allocator.h"
#include "freed_memory.h"
#include "instances/instance_handler.h"
#include "json/wipe_json.h"
#include "rpc/json_rpc_dispatcher.h"
#include "rpc/json_rpc_peer.h"
#include "rpc/websocket_client.h"
#include "rpc/websocket_state.h"
#include "support/log_capture.h"
#include "support/scoped_env.h"
#include "support/temp_dir.h"
#include "support/waiting.h"
#include "support/websocket_listener.h"

#include <gtest/gtest.h>

using namespace kestrel_test;
using namespace kestrel;

namespace
{
/// One instance and one password.
class Login_Handler : public Instance_Handler
{
public:
  Login_Handler() : Instance_Handler("oscar") {}

  int probe_instances(std::map<std::string, std::shared_ptr<Instance>>& instances) override
  {
    auto instance = std::make_shared<Instance>();
    instance->type = "oscar";
    instance->name = "ORCL";
    instances["ORCL"] = instance;
    return 0;
  }
  std::string& get_state(const char*, std::string& state) override { return state = "online"; }
  int logon(const char*, const char*, const char* password, std::map<std::string, json_spirit::Value>&) override
  {
    if (right == password)
      return 0;
    error_ = "refused";
    return -1;
  }

  std::string right;
};

/// A server's end and an agent's, with TLS between them.
class Login_Secrets : public ::testing::TestWithParam<const char*>
{
protected:
  Login_Secrets()
  {
    handler_.right = GetParam();
    std::string error;
    EXPECT_TRUE(services_.bind(at_agent_, {}, error)) << error;
    EXPECT_TRUE(at_agent_.start_with_defaults());
    EXPECT_TRUE(threads_.start());
    WebSocket_Dial dial;
    dial.url = listener_.url();
    dial.tls.ca_pem = authority_.ca_pem();
    WebSocket_Failure failure;
    const std::shared_ptr<WebSocket_Channel> dialled = client_.dial(dial, failure);
    EXPECT_TRUE(dialled) << failure.message;
    agent_ = JSON_RPC_Peer::start(dialled, &at_agent_);
    server_ = JSON_RPC_Peer::start(listener_.channel(), nullptr);
  }
  ~Login_Secrets() override
  {
    agent_->close();
    server_->close();
    EXPECT_TRUE(at_agent_.stop());
  }
  WebSocket_Listener::Options options() const
  {
    WebSocket_Listener::Options options;
    options.certificate = authority_.issue({});
    return options;
  }
  bool log_in(const char* instance, std::string& problem)
  {
    json_spirit::Value params{json_spirit::Object()};
    const Wipe_JSON_Guard<json_spirit::Value> wipe_params(params);
    params.get_obj().reserve(3);
    params.get_obj().emplace_back("instance", instance);
    params.get_obj().emplace_back("user", "sysdba");
    params.get_obj().emplace_back("password", GetParam());
    json_spirit::Value result;
    JSON_RPC_Error error;
    const bool done = server_->call("instance.login", params, 60 * 1000, result, error);
    problem = error.message;
    return done;
  }

  Temp_Dir root_;
  Scoped_Env environment_{"KESTREL_ROOT", root_.path()};
  Log_Capture log_;
  const Certificate_Authority authority_;
  Login_Handler handler_;
  Instance_Registry registry_{"host-1"};
  Instance_Service instances_{registry_, {&handler_}};
  Module_Table modules_;
  Agent_Jobs jobs_{modules_, Agent_Jobs::Settings()};
  Agent_Services services_{Agent_Services::Identity(), jobs_, instances_};
  JSON_RPC_Dispatcher at_agent_;
  WebSocket_Listener listener_{options()};
  Network_Threads threads_;
  WebSocket_Client client_{threads_};
  std::shared_ptr<JSON_RPC_Peer> agent_, server_;
};

TEST_P(Login_Secrets, leave_no_copy_on_their_way_from_the_server_to_the_instance)
{
  std::string problem;
  ASSERT_TRUE(log_in("ORCL", problem)) << problem; // what is made once is made now
  {
    const Freed_Memory_Watch watch(GetParam());
    EXPECT_TRUE(log_in("ORCL", problem)) << problem;
    EXPECT_FALSE(log_in("OTHER", problem));
    // The agent has let go of the requests when it has served another one on each of its threads.
    EXPECT_TRUE(eventually([&] {
      const JSON_RPC_Dispatcher::Statistics now = at_agent_.statistics();
      return now.running == 0 && now.open == 0;
    }));
    EXPECT_EQ(0u, watch.found());
  }
  EXPECT_NE(std::string::npos, problem.find("OTHER")) << problem;
  EXPECT_EQ(std::string::npos, problem.find(GetParam()));
}

TEST_P(Login_Secrets, a_text_that_was_not_sent_is_wiped_when_it_is_dropped)
{
  const Freed_Memory_Watch watch(GetParam());
  WebSocket_State state(WebSocket_Limits(), "nobody");
  {
    std::string text = std::string(40, '.') + GetParam();
    const Wipe_Guard<std::string> wipe_text(text);
    ASSERT_TRUE(state.send(text));
  }
  state.finish("over");
  EXPECT_EQ(0u, watch.found());
}

TEST_P(Login_Secrets, the_watch_finds_a_copy_that_nobody_wipes)
{
  const Freed_Memory_Watch watch(GetParam());
  {
    const std::vector<std::string> copies(1, std::string(40, '.') + GetParam());
  }
  EXPECT_LE(1u, watch.found());
}

// A short text stays inside of its object, a long one does not.
INSTANTIATE_TEST_SUITE_P(Passwords, Login_Secrets,
                         ::testing::Values("kw7-sesame-14", "kw7-a-password-that-is-longer-than-what-a-text-holds-itself"));
} // namespace

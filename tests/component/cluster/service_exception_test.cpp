#include "oscar/websvcs/list_handler.h"
#include "oscar/websvcs/oscar_node_handler.h"
#include "process/process_api.h"
#include "service_call.h"
#include "support/oscar_server.h"

#include <stdexcept>
#include <unistd.h>

using namespace kestrel_test;

namespace
{
/// No tool can be started, and the attempt throws.
class Throwing_Start : public kestrel::Process_Api
{
public:
  pid_t spawn(const kestrel::Spawn_Request&) override { throw std::runtime_error("too many 100%s"); }

private:
  const kestrel::Scoped_Process_Api scope_{*this};
};
} // namespace

/// What is thrown on the way ends in the services: each answers as for any other failure.
class Service_Exception : public Service_Call
{
protected:
  JSON_RPC_Oscar_List_Handler list_;
  JSON_RPC_Oscar_Node_Handler node_;
};

TEST_F(Service_Exception, of_the_list_of_instances_is_a_failed_discovery)
{
  // Servers of others on this host may be unreadable for us.
  log_.allow(LM_ERROR, "Failed to get OSCAR instance");
  log_.allow(LM_ERROR, "SZ_OSCAR_HOME is empty");
  log_.allow(LM_WARNING, "");
  const Oscar_Server server(home_, "KT" + std::to_string(::getpid()));
  const Throwing_Start start;
  EXPECT_EQ(ask(list_, ""), refusal(-32603, "Failed to get instance info"));
  EXPECT_TRUE(log_.expect(LM_ERROR, "get_oscar_instance_info: too many 100%s\n"));
  EXPECT_TRUE(log_.expect_exactly(LM_ERROR, "Failed to get instance info.\n"));
}

TEST_F(Service_Exception, of_a_browse_is_a_failure_of_its_level)
{
  const Throwing_Start start;
  EXPECT_EQ(ask(list_, R"({"uid":"u","instance":"DB1"})"),
            refusal(-32603, "Internal error: failed to get databases info, instance DB1"));
  EXPECT_EQ(ask(list_, R"({"uid":"u","instance":"DB1","database":"D"})"),
            refusal(-32603, "Internal error: failed to get schemas info DB1, db D"));
  EXPECT_EQ(ask(list_, R"({"uid":"u","instance":"DB1","database":"D","schema":"S"})"),
            refusal(-32603, "Internal error: failed to get tables info instance DB1, db D, schema S"));
  for (int i = 0; i < 3; ++i)
    EXPECT_TRUE(log_.expect(LM_ERROR, "get_oscar_info: too many 100%s\n"));
  EXPECT_FALSE(log_.contains("secret-word"));
}

TEST_F(Service_Exception, of_the_state_of_a_node_is_a_failed_check)
{
  const Throwing_Start start;
  EXPECT_EQ(ask(node_, R"({"instance":"DB1","uid":"u","virtual_address":"10.9.8.99"})"),
            refusal(-32603, "Failed to check node state\\n"));
  EXPECT_TRUE(log_.expect(LM_ERROR, "identify_local_node: too many 100%s\n"));
  EXPECT_TRUE(log_.expect_exactly(LM_ERROR, "Failed to get node info of instance DB1\n"));
  EXPECT_TRUE(log_.expect_exactly(LM_ERROR, "Failed to get node DB1 state\n"));
}

TEST_F(Service_Exception, of_a_job_that_asks_whether_it_is_selected_is_a_no)
{
  const Throwing_Start start;
  EXPECT_FALSE(is_selected());
  EXPECT_EQ(state_, "untouched");
  EXPECT_TRUE(server_->requests.empty());
  EXPECT_TRUE(log_.expect(LM_ERROR, "identify_local_node: too many 100%s\n"));
  EXPECT_TRUE(log_.expect_exactly(LM_ERROR, "Failed to get node info of instance DB1\n"));
}

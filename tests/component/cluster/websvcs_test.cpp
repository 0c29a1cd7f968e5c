#include "oscar/websvcs/list_handler.h"
#include "oscar/websvcs/oscar_node_handler.h"
#include "oscar/websvcs/oscar_notify_node_handler.h"
#include "service_call.h"

using namespace kestrel_test;

namespace
{
/// Neither request nor response.
class Some_Object : public JSON_RPC_Object
{
};
} // namespace

class Web_Services : public Service_Call
{
protected:
  /// isql answers by statement: the login test succeeds, queries print `rows`.
  void isql_rows(const std::vector<std::string>& rows)
  {
    std::string steps = "if args_contain -c\nout NAME\nout ----\n";
    for (const std::string& row : rows)
      steps += "out \"" + row + "\"\n";
    isql(steps + "out \"(" + std::to_string(rows.size()) + " rows)\"\nend\n");
  }

  JSON_RPC_Oscar_List_Handler list_;
  JSON_RPC_Oscar_Node_Handler node_;
  JSON_RPC_Oscar_Notify_Node_Handler notify_;
};

TEST_F(Web_Services, refuse_what_is_not_a_request)
{
  for (JSON_RPC_Handler* handler : std::vector<JSON_RPC_Handler*>{&list_, &node_, &notify_}) {
    EXPECT_EQ(handler->handle_object(keeper_, JSON_RPC_Object_Ptr(new Some_Object)), -1);
    EXPECT_TRUE(log_.expect(LM_EMERGENCY, "obj is not JSON-RPC request!\n"));
    EXPECT_EQ(handler->handle_object(keeper_, JSON_RPC_Object_Ptr()), -1);
    EXPECT_TRUE(log_.expect(LM_EMERGENCY, "obj is not JSON-RPC request!\n"));
  }
  EXPECT_TRUE(channel_->texts.empty());
}

TEST_F(Web_Services, give_up_when_the_requester_has_gone)
{
  ACE_Weak_Bound_Ptr<JSON_RPC_Channel, ACE_Thread_Mutex> gone(keeper_);
  keeper_.reset(static_cast<JSON_RPC_Channel*>(nullptr));
  for (JSON_RPC_Handler* handler : std::vector<JSON_RPC_Handler*>{&list_, &node_, &notify_}) {
    EXPECT_EQ(handler->handle_object(gone, JSON_RPC_Object_Ptr(new JSON_RPC_Request(5, "any", {}))), -1);
    EXPECT_TRUE(log_.expect_exactly(LM_ERROR, "Abort handling JSON-RPC request, requester has gone.\n"));
  }
}

TEST_F(Web_Services, judge_requester_and_object_in_their_own_order)
{
  ACE_Weak_Bound_Ptr<JSON_RPC_Channel, ACE_Thread_Mutex> gone(keeper_);
  keeper_.reset(static_cast<JSON_RPC_Channel*>(nullptr));
  EXPECT_EQ(list_.handle_object(gone, JSON_RPC_Object_Ptr(new Some_Object)), -1);
  EXPECT_TRUE(log_.expect(LM_ERROR, "requester has gone"));
  EXPECT_EQ(node_.handle_object(gone, JSON_RPC_Object_Ptr(new Some_Object)), -1);
  EXPECT_TRUE(log_.expect(LM_EMERGENCY, "obj is not JSON-RPC request!\n"));
}

TEST_F(Web_Services, refuse_params_of_another_kind)
{
  const std::string refused = refusal(-32602, "Invalid params");
  for (const char* params : {"[]", "\"x\"", "5", "true", "1.5"}) {
    EXPECT_EQ(ask(list_, params), refused) << params;
    EXPECT_EQ(ask(node_, params), refused) << params;
    EXPECT_EQ(ask(notify_, params), refused) << params;
  }
  EXPECT_EQ(ask(node_, ""), refused);
  EXPECT_EQ(ask(notify_, ""), refused);
}

TEST_F(Web_Services, give_the_result_of_the_send)
{
  channel_->result = -1;
  ask(node_, "[]");
  EXPECT_EQ(result_, -1);
  channel_->result = 3;
  ask(notify_, "[]");
  EXPECT_EQ(result_, 3);
}

TEST_F(Web_Services, node_state_of_this_host)
{
  EXPECT_EQ(ask(node_, R"({"instance":"DB1","uid":"u","virtual_address":"10.9.8.99","further":1})"),
            answer(R"({"instance":"","node_id":7,"is_master":true,"online":false})"));
  EXPECT_EQ(result_, 0);
}

TEST_F(Web_Services, node_state_needs_each_of_its_params)
{
  for (const char* params :
       {"{}", R"({"uid":"u","virtual_address":"a"})", R"({"instance":"DB1","virtual_address":"a"})",
        R"({"instance":"DB1","uid":"u"})", R"({"instance":1,"uid":"u","virtual_address":"a"})",
        R"({"instance":"DB1","uid":null,"virtual_address":"a"})"}) {
    EXPECT_EQ(ask(node_, params), refusal(-32602, "Invalid params\\n")) << params;
    EXPECT_TRUE(log_.expect(LM_ERROR, "Failed to check node state, ")) << params;
  }
}

TEST_F(Web_Services, node_state_that_cannot_be_had_is_an_internal_error)
{
  EXPECT_EQ(ask(node_, R"({"instance":"NONE","uid":"u","virtual_address":""})"),
            refusal(-32603, "Failed to check node state\\n"));
  EXPECT_TRUE(log_.expect_exactly(LM_ERROR, "Failed to invoke check_state, can't find instance.\n"));
  EXPECT_TRUE(log_.expect_exactly(LM_ERROR, "Failed to get node NONE state\n"));
}

TEST_F(Web_Services, an_announcement_is_stored_whoever_waits_for_it_and_the_last_one_counts)
{
  const std::string head =
      std::string(R"({"definition_uuid":")") + JOB + R"(","instance":"DB1","host_uuid":"h",)";
  EXPECT_EQ(ask(notify_, head + R"("state":"failed","node_id":-1,"selection_time":5})"), answer("true"));
  EXPECT_EQ(ask(notify_, head + R"("state":"success","node_id":8,"selection_time":1700000005})"),
            answer("true"));
  oscar::Oscar_Cluster_Node_Manager::Selection selection;
  ASSERT_TRUE(manager().get_selection(JOB, selection));
  EXPECT_EQ(selection.instance, "DB1");
  EXPECT_EQ(selection.node_id, 8);
  EXPECT_EQ(selection.host_uuid, "h");
  EXPECT_EQ(selection.state, "success");
  EXPECT_EQ(selection.start_time, 1700000005);
  EXPECT_FALSE(stored());
}

TEST_F(Web_Services, an_announcement_needs_each_of_its_params)
{
  const std::string members[] = {R"("definition_uuid":"d")", R"("instance":"i")", R"("host_uuid":"h")",
                                 R"("state":"success")",     R"("node_id":1)",    R"("selection_time":5)"};
  const auto params_without = [&](size_t absent, const std::string& instead) {
    std::string params;
    for (size_t i = 0; i < std::size(members); ++i) {
      const std::string& member = i == absent ? instead : members[i];
      if (!member.empty())
        params += (params.empty() ? "" : ",") + member;
    }
    return "{" + params + "}";
  };
  std::vector<std::string> wrong = {
      params_without(4, R"("node_id":"1")"), params_without(5, R"("selection_time":5.5)"),
      params_without(4, R"("node_id":5000000000)"), params_without(0, R"("definition_uuid":7)")};
  for (size_t i = 0; i < std::size(members); ++i)
    wrong.push_back(params_without(i, ""));
  for (const std::string& params : wrong) {
    EXPECT_EQ(ask(notify_, params), refusal(-32602, "Invalid params\\n")) << params;
    EXPECT_TRUE(log_.expect(LM_ERROR, "Failed to get selected node, ")) << params;
  }
  EXPECT_FALSE(stored("d"));
}

TEST_F(Web_Services, the_list_of_databases_shows_an_open_one)
{
  isql("if args_contain -c\nout MODE\nout ----\nout \" ARCHIVELOG \"\nout \"(1 row)\"\nend\n");
  EXPECT_EQ(ask(list_, R"({"uid":"u","instance":"DB1"})"),
            answer(R"([{"database":"DB1","status":"open","archivelog":true,"version":"2.5.6"}])"));
  EXPECT_EQ(ask(list_, R"({"uid":"u","instance":"DB1","database":"","schema":""})"),
            answer(R"([{"database":"DB1","status":"open","archivelog":true,"version":"2.5.6"}])"));
  EXPECT_FALSE(log_.contains("secret-word"));
}

TEST_F(Web_Services, a_refused_login_is_the_answer_unopened)
{
  isql("err \"isql: ERROR, wrong password\"\nexit 1\n");
  log_.allow(LM_ERROR, "isql: ERROR, wrong password");
  log_.allow(LM_ERROR, "Failed to execute");
  EXPECT_EQ(ask(list_, R"({"uid":"u","instance":"DB1"})"),
            answer(R"([{"database":"DB1","status":"unopened"}])"));
}

TEST_F(Web_Services, the_schemas_of_a_database_and_the_tables_of_a_schema)
{
  isql_rows({" SALES ", " HR "});
  EXPECT_EQ(ask(list_, R"({"uid":"u","instance":"DB1","database":"DB1"})"), answer(R"(["SALES","HR"])"));
  isql_rows({" SALES | ORDERS | TABLE ", " SALES | ITEMS | VIEW "});
  EXPECT_EQ(ask(list_, R"({"uid":"u","instance":"DB1","database":"DB1","schema":"SALES"})"),
            answer(R"(["ORDERS","ITEMS"])"));
  EXPECT_NE(isql_arguments().find("SALES"), std::string::npos);
}

TEST_F(Web_Services, a_browse_that_fails_says_where)
{
  isql("err \"isql: ERROR, gone\"\nexit 1\n");
  log_.allow(LM_ERROR, "");
  EXPECT_EQ(ask(list_, R"({"uid":"u","instance":"DB1","database":"D2"})"),
            refusal(-32603, "Internal error: failed to get schemas info DB1, db D2"));
  EXPECT_EQ(ask(list_, R"({"uid":"u","instance":"DB1","database":"D2","schema":"S"})"),
            refusal(-32603, "Internal error: failed to get tables info instance DB1, db D2, schema S"));
  const std::string long_name(300, 'x');
  const std::string text = "Internal error: failed to get schemas info DB1, db " + long_name;
  EXPECT_EQ(ask(list_, R"({"uid":"u","instance":"DB1","database":")" + long_name + "\"}"),
            refusal(-32603, text.substr(0, 255)));
  EXPECT_FALSE(log_.contains("secret-word"));
}

TEST_F(Web_Services, a_browse_that_breaks_off_after_the_login_is_an_error)
{
  isql("if args_contain -c\nerr \"isql: ERROR, gone\"\nexit 1\nend\n");
  log_.allow(LM_ERROR, "");
  EXPECT_EQ(ask(list_, R"({"uid":"u","instance":"DB1"})"),
            refusal(-32603, "Internal error: failed to get databases info, instance DB1"));
}

TEST_F(Web_Services, a_browse_needs_user_and_instance_and_a_schema_its_database)
{
  for (const char* params :
       {"{}", R"({"uid":"u"})", R"({"instance":"DB1"})", R"({"uid":1,"instance":"DB1"})",
        R"({"uid":"u","instance":"DB1","database":[]})", R"({"uid":"u","instance":"DB1","schema":7})",
        R"({"uid":"u","instance":"DB1","schema":"S"})",
        R"({"uid":"u","instance":"DB1","database":"","schema":"S"})"})
    EXPECT_EQ(ask(list_, params), refusal(-32602, "Invalid params")) << params;
  EXPECT_FALSE(exists(home_ / "bin/args"));
}

TEST_F(Web_Services, a_browse_without_account_instance_or_registry_is_refused)
{
  std::string error;
  EXPECT_EQ(ask(list_, R"({"uid":"u","instance":"NONE"})"), refusal(-32603, "Failed to get account"));
  ASSERT_EQ(registry_.set_account("oscar", "GONE", "", "u", "p", error), 0) << error;
  EXPECT_EQ(ask(list_, R"({"uid":"u","instance":"GONE"})"), refusal(-32603, "Instance info is null"));
  Instance_Manager* const registry = kestrel::set_instance_manager_for_test(nullptr);
  const std::string refused = ask(list_, R"({"uid":"u","instance":"DB1"})");
  kestrel::set_instance_manager_for_test(registry);
  EXPECT_EQ(refused, refusal(-32603, "Instance manager is null"));
}

TEST_F(Web_Services, only_a_negative_result_of_the_account_is_a_failure_of_a_browse)
{
  isql_rows({" SALES "});
  {
    const Odd_Account_Result odd(1);
    EXPECT_EQ(ask(list_, R"({"uid":"u","instance":"DB1","database":"DB1"})"), answer(R"(["SALES"])"));
  }
  const Odd_Account_Result odd(-2);
  EXPECT_EQ(ask(list_, R"({"uid":"u","instance":"DB1"})"), refusal(-32603, "Failed to get account"));
}

#include "oscar/websvcs/list_handler.h"
#include "oscar/websvcs/oscar_node_handler.h"
#include "oscar/websvcs/oscar_notify_node_handler.h"
#include "service_call.h"
#include "support/no_memory.h"

using namespace kestrel_test;

/// Services that find no memory for their answer.
class Service_Memory : public Service_Call
{
protected:
  static JSON_RPC_Object_Ptr request(const std::string& params)
  {
    json_spirit::Value value;
    std::string error;
    EXPECT_TRUE(params.empty() || kestrel::read_json(params, value, error)) << error;
    return JSON_RPC_Object_Ptr(new JSON_RPC_Request(5, "any", value));
  }

  /// What is answered when the first allocation fails, when the second does, and so on until none is left to
  /// fail.
  /// "" stands for an answer that could not be sent.
  std::vector<std::string> answers_of_all_failures(JSON_RPC_Handler& handler, const std::string& params)
  {
    std::vector<std::string> answers;
    const JSON_RPC_Object_Ptr message = request(params);
    for (unsigned good = 0; good < 1000; ++good) {
      const No_Memory none(good, 1);
      errno = 0;
      const std::string text = ask(handler, message);
      const int error = errno;
      if (!none.refused())
        return answers;
      answers.push_back(text);
      EXPECT_EQ(result_, text.empty() ? -1 : 0);
      if (text.empty() || text == out_of_memory_) {
        EXPECT_EQ(error, ENOMEM);
      }
    }
    ADD_FAILURE() << "it never ends";
    return answers;
  }
  /// The response is what is allocated last, and after it the count of its references.
  void expect_that_the_end_is_about_the_answer(const std::vector<std::string>& answers) const
  {
    ASSERT_GE(answers.size(), 2u);
    EXPECT_EQ(answers[answers.size() - 2], out_of_memory_);
    EXPECT_EQ(answers[answers.size() - 1], "");
  }

  const std::string out_of_memory_ = refusal(-32603, "Internal error, out of memory.");
};

TEST_F(Service_Memory, the_list_of_instances_says_so)
{
  // Alone in the world: what others start and end on this host would change the number of allocations.
  JSON_RPC_Oscar_List_Handler list;
  std::vector<std::string> answers;
  if (!without_processes([&] { answers = answers_of_all_failures(list, ""); }))
    GTEST_SKIP() << "needs root";
  expect_that_the_end_is_about_the_answer(answers);
}

TEST_F(Service_Memory, a_browse_says_so_before_it_looks_at_its_params)
{
  JSON_RPC_Oscar_List_Handler list;
  for (const char* params : {"{}", R"({"uid":"u","instance":"DB1"})"}) {
    const JSON_RPC_Object_Ptr message = request(params);
    const No_Memory none(0, 1);
    errno = 0;
    EXPECT_EQ(ask(list, message), out_of_memory_) << params;
    EXPECT_EQ(result_, 0);
  }
  EXPECT_FALSE(exists(home_ / "bin/args")) << "no tool was asked";
}

TEST_F(Service_Memory, the_state_of_a_node_says_so_after_it_was_found)
{
  log_.allow(LM_ERROR, "");
  JSON_RPC_Oscar_Node_Handler node;
  expect_that_the_end_is_about_the_answer(
      answers_of_all_failures(node, R"({"instance":"DB1","uid":"u","virtual_address":"10.9.8.99"})"));
}

TEST_F(Service_Memory, an_announcement_is_stored_and_not_answered)
{
  JSON_RPC_Oscar_Notify_Node_Handler notify;
  const JSON_RPC_Object_Ptr message =
      request(std::string(R"({"definition_uuid":")") + JOB +
              R"(","instance":"DB1","host_uuid":"h","state":"success","node_id":8,"selection_time":5})");
  for (const unsigned good : {0u, 1u}) {
    const No_Memory none(good, 1);
    errno = 0;
    EXPECT_EQ(ask(notify, message), "");
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(result_, -1);
    EXPECT_TRUE(none.refused());
    EXPECT_TRUE(stored());
  }
}

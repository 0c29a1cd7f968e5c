#include "server_fixture.h"

#include <mutex>

using namespace kestrel_test;

/// Requests of the console about jobs, on their way to the agents.
class Served_Control : public Server_Fixture
{
protected:
  json_spirit::Object control(const std::string& id, const std::string& body)
  {
    const json_spirit::Value answer = ask("POST", "/k2/r/jobs/" + id + "/control", body);
    const json_spirit::Array& results = list_of(answer, "results");
    EXPECT_EQ(results.size(), 1u) << kestrel::write_json(answer);
    return results.empty() ? json_spirit::Object() : results[0].get_obj();
  }
};

TEST_F(Served_Control, every_action_reaches_the_agent_and_its_answer_comes_back)
{
  add_agent("db1");
  std::mutex mutex;
  std::vector<std::string> heard;
  agent(0).on("job.control", [&](const json_spirit::Value& params, json_spirit::Value& result, auto&) {
    const std::lock_guard<std::mutex> guard(mutex);
    heard.push_back(kestrel::write_json(params));
    result = json(R"({"run_id":"the-run"})");
    return true;
  });
  connect(agent(0));
  const std::string id = define();
  std::vector<std::string> expected;
  for (const std::string action : {"run", "pause", "resume", "cancel", "abort", "switch"}) {
    EXPECT_EQ(member_text(control(id, R"({"action":")" + action + "\"}"), "run_id"), "the-run") << action;
    expected.push_back(action);
    EXPECT_NE(kestrel::write_json(ask("GET", "/k2/r/audit?limit=100")).find(action + " on 1 host"), std::string::npos);
  }
  const std::lock_guard<std::mutex> guard(mutex);
  ASSERT_EQ(heard.size(), expected.size());
  for (size_t i = 0; i < heard.size(); ++i) {
    const json_spirit::Value params = json(heard[i]);
    EXPECT_EQ(member_text(params.get_obj(), "id"), id);
    EXPECT_EQ(member_text(params.get_obj(), "action"), expected[i]);
  }
}

TEST_F(Served_Control, a_refusal_comes_back_with_the_code_and_the_words_of_the_agent)
{
  add_agent("db1");
  agent(0).on("job.control",
              [](const json_spirit::Value&, json_spirit::Value&, kestrel::JSON_RPC_Error& error) {
                error.code = -32002;
                error.message = "the run is canceling";
                return false;
              });
  connect(agent(0));
  const json_spirit::Object result = control(define(), R"({"action":"pause"})");
  EXPECT_EQ(kestrel::write_json(json_spirit::find_value(result, "error")),
            R"({"code":-32002,"message":"the run is canceling"})");
}

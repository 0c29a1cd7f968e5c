#include "agent/run_report.h"

#include "json/json_util.h"

#include <gtest/gtest.h>

using namespace kestrel;

namespace
{
class Run_Report : public ::testing::Test
{
protected:
  Report_Outcome answer_of(const std::string& text)
  {
    json_spirit::Value value;
    std::string error;
    EXPECT_TRUE(read_json(text, value, error)) << error;
    return read_report_answer(value, answer_);
  }
  Report_Outcome failure(REST_Problem::Kind kind, int status, const std::string& code = "some_code")
  {
    REST_Problem problem;
    problem.kind = kind;
    problem.status = status;
    problem.code = code;
    problem.text = "the server refused:\nno such host";
    return read_report_failure(problem, answer_);
  }

  Report_Answer answer_;
};

TEST_F(Run_Report, says_what_was_stored_and_what_was_refused)
{
  EXPECT_EQ(Report_Outcome::answered,
            answer_of("{\"stored\":[\"r1\",\"r2\"],\"refused\":[{\"run_id\":\"r3\",\"reason\":\"of another\\nhost\"},"
                      "{\"run_id\":\"r4\",\"reason\":\"\"}]}"));
  EXPECT_EQ((std::vector<std::string>{"r1", "r2"}), answer_.stored);
  ASSERT_EQ(2u, answer_.refused.size());
  EXPECT_EQ("r3", answer_.refused[0].run_id);
  EXPECT_EQ("of another host", answer_.refused[0].reason);
  EXPECT_NE("", answer_.refused[1].reason);
}

TEST_F(Run_Report, needs_no_list_of_refused_ones)
{
  EXPECT_EQ(Report_Outcome::answered, answer_of("{\"stored\":[]}"));
  EXPECT_TRUE(answer_.stored.empty());
}

TEST_F(Run_Report, takes_what_is_no_such_answer_for_a_server_out_of_reach)
{
  for (const char* text : {"null", "[]", "7", "\"stored\"", "{}", "{\"stored\":null}", "{\"stored\":[7]}",
                           "{\"stored\":[\"r1\"],\"refused\":[\"r2\"]}", "{\"stored\":[\"r1\"],\"refused\":[{}]}",
                           "{\"stored\":[\"r1\"],\"refused\":{}}"}) {
    answer_.stored = {"left over"};
    EXPECT_EQ(Report_Outcome::unreachable, answer_of(text)) << text;
    EXPECT_TRUE(answer_.stored.empty() && answer_.refused.empty()) << text;
    EXPECT_NE(std::string::npos, answer_.reason.find("cannot be used")) << text;
  }
}

TEST_F(Run_Report, only_what_the_server_says_of_the_records_is_final)
{
  for (const int status : {400, 404, 409, 413, 415, 422, 499}) {
    EXPECT_EQ(Report_Outcome::refused, failure(REST_Problem::refused, status)) << status;
    EXPECT_EQ("the server refused: no such host", answer_.reason);
  }
  for (const int status : {300, 302, 399, 401, 403, 407, 408, 425})
    EXPECT_EQ(Report_Outcome::unreachable, failure(REST_Problem::refused, status)) << status;
  for (const int status : {429, 500, 502, 503, 504, 599})
    EXPECT_EQ(Report_Outcome::unreachable, failure(REST_Problem::busy, status)) << status;
  for (const REST_Problem::Kind kind :
       {REST_Problem::unreachable, REST_Problem::lost, REST_Problem::unusable, REST_Problem::stopped})
    EXPECT_EQ(Report_Outcome::unreachable, failure(kind, 0)) << kind;
  // Not in the server's form: something on the way has answered.
  EXPECT_EQ(Report_Outcome::unreachable, failure(REST_Problem::refused, 404, ""));
}
} // namespace

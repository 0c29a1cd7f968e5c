#include "scripted_transport.h"

#include "base/uuid.h"
#include "remote/upstream.h"
#include "rpc/json_restful_client.h"
#include "support/clocks.h"
#include "support/log_capture.h"

#include <gtest/gtest.h>

#include <set>

using namespace kestrel;
using namespace kestrel_test;

namespace
{
/// What the module asks of the server, over a network in a list.
class Upstream_Request : public testing::Test
{
protected:
  Upstream_Request()
  {
    const Scoped_REST_Transport scope(server_);
    Upstream_Options options;
    options.url = "https://server:7480";
    options.access_key = "host.secretkey";
    std::string error;
    EXPECT_TRUE(register_upstream(options, error)) << error;
  }
  ~Upstream_Request() override { unregister_upstream(); }

  bool post()
  {
    HTTP_Request request(HTTP_Request::JSON_POST, "/k2/r/oscar/cluster", true);
    const json_spirit::Value body = json_spirit::Object{{"uid", "u"}};
    return Upstream_JSON_RESTful_Client::instance()->post(request, &body, &reply_);
  }
  std::set<std::string> ids() const
  {
    std::set<std::string> found;
    for (const Scripted_Transport::Seen& seen : server_->seen)
      for (const auto& [name, value] : seen.headers)
        if (name == "X-Request-Id") {
          EXPECT_TRUE(is_uuid(value)) << value;
          found.insert(value);
        }
    return found;
  }

  Fake_Clock clock_;
  Log_Capture log_;
  std::shared_ptr<Scripted_Transport> server_ = std::make_shared<Scripted_Transport>();
  json_spirit::Value reply_;
};
} // namespace

TEST_F(Upstream_Request, is_repeated_under_its_name_when_no_answer_came)
{
  server_->fail(REST_Problem::lost, "the connection broke");
  server_->fail(REST_Problem::lost, "no answer in time");
  server_->answer(200, R"({"selection_time":7})");
  EXPECT_TRUE(post());
  EXPECT_EQ(3u, server_->seen.size());
  EXPECT_EQ(1u, ids().size());
  EXPECT_EQ(R"({"uid":"u"})", server_->seen.back().body);
  EXPECT_EQ(3000, clock_.slept_msec());
  EXPECT_EQ(1u, log_.count(LM_NOTICE, "sent again in 1000 ms: the connection broke"));
  server_->answer(200, "{}");
  EXPECT_TRUE(post());
  EXPECT_EQ(2u, ids().size()) << "the next request has a name of its own";
}

TEST_F(Upstream_Request, is_given_up_after_the_third_time)
{
  for (unsigned i = 0; i < 4; ++i)
    server_->fail(REST_Problem::lost, "the connection broke");
  EXPECT_FALSE(post());
  EXPECT_EQ(3u, server_->seen.size());
  log_.expect(LM_ERROR, "request /k2/r/oscar/cluster to the backup server failed: the connection broke");
}

TEST_F(Upstream_Request, goes_on_while_the_server_restarts_after_a_loss)
{
  server_->fail(REST_Problem::lost, "the connection broke");
  server_->fail(REST_Problem::unreachable, "nobody listens");
  server_->answer(200, "{}");
  EXPECT_TRUE(post());
  EXPECT_EQ(1u, ids().size());
}

TEST_F(Upstream_Request, is_not_repeated_when_the_server_answered_or_never_got_it)
{
  for (const int status : {400, 403, 429, 500, 503}) {
    server_->answer(status, R"({"error":{"code":"no","message":"not now"}})");
    EXPECT_FALSE(post());
    log_.expect(LM_ERROR, "not now");
  }
  server_->fail(REST_Problem::unreachable, "nobody listens");
  EXPECT_FALSE(post());
  log_.expect(LM_ERROR, "nobody listens");
  server_->fail(REST_Problem::lost, "the connection broke");
  server_->answer(503, R"({"error":{"code":"no","message":"later"}})");
  EXPECT_FALSE(post());
  log_.expect(LM_ERROR, "later");
  EXPECT_EQ(8u, server_->seen.size());
  EXPECT_EQ(1u, clock_.sleeps());
}

TEST_F(Upstream_Request, takes_no_longer_than_one_that_nobody_answers)
{
  for (unsigned i = 0; i < 3; ++i)
    server_->late(REST_Problem::lost, [this](unsigned seconds) {
      EXPECT_GE(10u, seconds);
      clock_.advance_msec(int64_t(seconds) * 1000);
    });
  const int64_t begin = clock_.monotonic_msec();
  EXPECT_FALSE(post());
  EXPECT_EQ(3u, server_->seen.size());
  EXPECT_GE(30000, clock_.monotonic_msec() - begin);
  log_.expect(LM_ERROR, "request /k2/r/oscar/cluster to the backup server failed");
}

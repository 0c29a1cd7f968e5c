#include "rpc/rest_router.h"
#include "server/host_gate.h"
#include "support/clocks.h"

#include <gtest/gtest.h>

#include <deque>
#include <memory>
#include <string>
#include <thread>

using namespace kestrel;
using namespace kestrel_test;

namespace
{
Host_Gate::Limits limits_of(unsigned all, unsigned user, unsigned host)
{
  Host_Gate::Limits limits;
  limits.all = all;
  limits.user = user;
  limits.host = host;
  limits.patience_msec = 0;
  return limits;
}

class Host_Gate_Test : public testing::Test
{
protected:
  Host_Gate& make(const Host_Gate::Limits& limits)
  {
    gate_ = std::make_unique<Host_Gate>(limits);
    return *gate_;
  }
  /// The status of the refusal, 0 for a pass that is kept.
  int ask(Host_Gate& gate, const std::string& user, const std::string& host)
  {
    return enter([&] { return std::make_unique<Host_Gate::Pass>(gate, user, host); });
  }
  int control(Host_Gate& gate)
  {
    return enter([&] { return std::make_unique<Host_Gate::Pass>(gate); });
  }
  template <class Make> int enter(Make make)
  {
    try {
      passes_.push_back(make());
      return 0;
    } catch (const REST_Error& refused) {
      EXPECT_GT(refused.retry_seconds(), 0);
      text_ = refused.what();
      return refused.status();
    }
  }

  Fake_Clock clock_;
  std::unique_ptr<Host_Gate> gate_; ///< outlives its passes
  std::deque<std::unique_ptr<Host_Gate::Pass>> passes_;
  std::string text_;
};
} // namespace

TEST_F(Host_Gate_Test, one_user_cannot_take_all_of_it)
{
  Host_Gate& gate = make(limits_of(20, 2, 10));
  EXPECT_EQ(ask(gate, "wanda", "a"), 0);
  EXPECT_EQ(ask(gate, "wanda", "b"), 0);
  EXPECT_EQ(ask(gate, "wanda", "c"), 429);
  EXPECT_NE(text_.find("2 requests of this user"), std::string::npos) << text_;
  EXPECT_EQ(ask(gate, "otto", "c"), 0);
  passes_.pop_front();
  EXPECT_EQ(ask(gate, "wanda", "c"), 0) << "one of hers has ended";
}

TEST_F(Host_Gate_Test, all_users_together_leave_a_host_room)
{
  Host_Gate& gate = make(limits_of(20, 10, 2));
  EXPECT_EQ(ask(gate, "wanda", "a"), 0);
  EXPECT_EQ(ask(gate, "otto", "a"), 0);
  EXPECT_EQ(ask(gate, "emil", "a"), 503);
  EXPECT_NE(text_.find("The host is busy with 2 requests"), std::string::npos) << text_;
  EXPECT_EQ(ask(gate, "emil", "b"), 0) << "another host";
}

TEST_F(Host_Gate_Test, requests_that_control_jobs_find_room_when_no_other_does)
{
  Host_Gate& gate = make(limits_of(4, 10, 10));
  int asked = 0;
  while (ask(gate, "wanda", "a") == 0)
    ++asked;
  EXPECT_EQ(asked, 3);
  EXPECT_EQ(control(gate), 0);
  EXPECT_EQ(control(gate), 503) << "all of it is a limit for them, too";
}

TEST_F(Host_Gate_Test, a_question_that_was_given_up_counts_until_the_host_must_be_done_with_it)
{
  Host_Gate& gate = make(limits_of(20, 3, 2));
  EXPECT_EQ(ask(gate, "wanda", "a"), 0);
  EXPECT_EQ(ask(gate, "wanda", "a"), 0);
  passes_[0]->given_up(60000);
  passes_[1]->given_up(90000);
  passes_.clear();
  EXPECT_EQ(ask(gate, "otto", "a"), 503) << "the host still works on both";
  EXPECT_EQ(ask(gate, "wanda", "b"), 0);
  EXPECT_EQ(ask(gate, "wanda", "c"), 429);
  clock_.advance_msec(60001);
  EXPECT_EQ(ask(gate, "otto", "a"), 0);
  EXPECT_EQ(ask(gate, "emil", "a"), 503);
  clock_.advance_msec(30000);
  EXPECT_EQ(ask(gate, "emil", "a"), 0);
}

TEST_F(Host_Gate_Test, a_waiting_request_goes_on_when_another_ends)
{
  Host_Gate::Limits limits = limits_of(8, 1, 1);
  limits.patience_msec = 600000;
  Host_Gate& gate = make(limits);
  auto first = std::make_unique<Host_Gate::Pass>(gate, "wanda", "a");
  std::thread second([&] { EXPECT_EQ(ask(gate, "wanda", "a"), 0); });
  first.reset();
  second.join();
}

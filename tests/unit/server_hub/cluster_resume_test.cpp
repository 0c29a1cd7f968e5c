#include "cluster_round_fixture.h"

using namespace kestrel;
using namespace kestrel_test;

namespace
{
/// A server is killed and another one goes on with what the first had kept.
class Cluster_Resume : public Cluster_Round_Test
{
protected:
  /// False when there is nothing to go on with.
  bool restart(int64_t down_msec = 2000)
  {
    json_spirit::Value kept;
    std::string error;
    EXPECT_TRUE(read_json(write_json(round_->kept()), kept, error)) << error;
    now_ += down_msec;
    round_ = Cluster_Round::resume(Cluster_Limits(), kept.get_obj(), 1700000000, 17, now_);
    return round_ != nullptr;
  }
  void answer_all()
  {
    int id = 0;
    for (const char* host : {"a", "b", "c"})
      round_->answered(host, node(++id));
  }
  void asks_and_hears(const std::string& host) { round_->reply_written(ask(host), true, now_); }
  std::string text() { return write_json(round_->explanation(view_)); }
  std::string state() { return json_spirit::find_value(round_->explanation(view_), "state").get_str(); }
};
} // namespace

TEST_F(Cluster_Resume, after_the_first_request_the_others_join_the_same_choice_and_all_are_told_once)
{
  begin();
  asks_and_hears("a");
  ASSERT_TRUE(restart());
  EXPECT_EQ(round_->selection_time(), 1700000000);
  EXPECT_TRUE(round_->takes("b", now_));
  asks_and_hears("b");
  asks_and_hears("c");
  EXPECT_EQ(questions(), (Hosts{"a", "b", "c"})) << "nodes are asked again";
  answer_all();
  ASSERT_TRUE(decide());
  EXPECT_EQ(round_->choice().host_uuid, "a");
  EXPECT_EQ(announce(), Hosts{"a"});
  EXPECT_EQ(announce(), (Hosts{"b", "c"}));
  EXPECT_NE(text().find("after a restart of the server: it has the lowest node id"), std::string::npos)
      << text();
}

TEST_F(Cluster_Resume, after_all_requests_it_waits_for_agents_that_come_back)
{
  begin();
  for (const char* host : {"a", "b", "c"})
    asks_and_hears(host);
  view_.online = {};
  ASSERT_TRUE(restart());
  EXPECT_FALSE(decide());
  view_.online = {"b"};
  questions();
  round_->answered("b", node(2));
  EXPECT_FALSE(decide()) << "a and c wait as well, and may come";
  view_.online = {"a", "b", "c"};
  EXPECT_EQ(questions(), (Hosts{"a", "c"}));
  round_->answered("a", node(1));
  round_->answered("c", node(3));
  EXPECT_TRUE(decide());
  EXPECT_EQ(announce(), Hosts{"a"});
  EXPECT_EQ(announce(), (Hosts{"b", "c"}));
}

TEST_F(Cluster_Resume, it_does_not_wait_so_long_that_nobody_can_be_told)
{
  begin();
  for (const char* host : {"a", "b", "c"})
    asks_and_hears(host);
  view_.online = {"b"};
  ASSERT_TRUE(restart(5000));
  questions();
  round_->answered("b", node(2));
  now_ += 5999;
  EXPECT_FALSE(decide());
  now_ += 1;
  EXPECT_TRUE(decide());
  EXPECT_EQ(round_->choice().host_uuid, "b");
  EXPECT_EQ(announce(), Hosts{"b"});
}

TEST_F(Cluster_Resume, after_the_choice_and_before_the_announcements_the_choice_stands)
{
  begin();
  all_ask_and_answer();
  ASSERT_TRUE(decide());
  ASSERT_TRUE(restart());
  EXPECT_FALSE(decide()) << "it is made";
  EXPECT_EQ(questions(), Hosts());
  EXPECT_EQ(announce(), Hosts{"a"});
  EXPECT_EQ(announce(), (Hosts{"b", "c"}));
  EXPECT_EQ(announce(), Hosts());
}

TEST_F(Cluster_Resume, an_announcement_that_may_have_been_sent_is_never_repeated_and_the_choice_stands)
{
  begin();
  all_ask_and_answer();
  ASSERT_TRUE(decide());
  ASSERT_EQ(round_->take_announcements(view_, now_).size(), 1u) << "to the chosen one";
  ASSERT_TRUE(restart());
  EXPECT_EQ(announce(), (Hosts{"b", "c"})) << "they hear that a was chosen";
  EXPECT_NE(params_.find("\"node_id\":1"), std::string::npos) << params_;
  EXPECT_EQ(announce(), Hosts());
  EXPECT_NE(text().find("restarted while it told its agent, which may have heard"), std::string::npos)
      << text();
  now_ += 10000;
  EXPECT_TRUE(round_->give_up(view_, now_).empty());
  EXPECT_EQ(round_->choice().host_uuid, "a") << "another choice could make two of them work";
}

TEST_F(Cluster_Resume, after_one_of_three_announcements_the_others_are_told)
{
  begin();
  all_ask_and_answer();
  ASSERT_TRUE(decide());
  ASSERT_EQ(announce(), Hosts{"a"});
  view_.online = {};
  ASSERT_TRUE(restart());
  EXPECT_EQ(announce(), Hosts());
  view_.online = {"a", "b", "c"};
  EXPECT_EQ(announce(), (Hosts{"b", "c"}));
}

TEST_F(Cluster_Resume, a_late_host_joins_the_choice_of_before_the_restart)
{
  begin();
  all_ask_and_answer({"a", "b"});
  view_.online = {"a", "b"};
  now_ += Cluster_Limits().window_msec;
  ASSERT_TRUE(decide());
  ASSERT_EQ(announce(), Hosts{"a"});
  ASSERT_EQ(announce(), Hosts{"b"});
  ASSERT_TRUE(restart(30000)) << "a works, and c must hear of it";
  view_.online = {"a", "b", "c"};
  ASSERT_TRUE(round_->takes("c", now_));
  EXPECT_FALSE(round_->takes("a", now_)) << "it has had its choice";
  asks_and_hears("c");
  EXPECT_EQ(announce(), Hosts{"c"});
  EXPECT_NE(params_.find("\"node_id\":1"), std::string::npos) << params_;
  now_ += 60000;
  EXPECT_FALSE(restart()) << "late enough";
}

TEST_F(Cluster_Resume, who_may_not_have_had_an_answer_is_not_announced_to_and_may_ask_again)
{
  begin();
  ask("a"); // killed before it was known whether the reply had left
  asks_and_hears("b");
  ASSERT_TRUE(restart());
  EXPECT_TRUE(round_->takes("a", now_));
  asks_and_hears("a");
  asks_and_hears("c");
  questions();
  answer_all();
  ASSERT_TRUE(decide());
  EXPECT_EQ(announce(), Hosts{"a"}) << "once, for the request that was answered";
  EXPECT_EQ(announce(), (Hosts{"b", "c"}));
}

TEST_F(Cluster_Resume, who_asks_again_no_longer_waits_for_its_first_request)
{
  begin();
  asks_and_hears("a");
  ASSERT_TRUE(restart());
  asks_and_hears("a");
  asks_and_hears("b");
  asks_and_hears("c");
  questions();
  answer_all();
  ASSERT_TRUE(decide());
  EXPECT_EQ(announce(), Hosts{"a"});
  EXPECT_EQ(announce(), (Hosts{"b", "c"}));
  EXPECT_NE(text().find("its agent asked again"), std::string::npos) << text();
}

TEST_F(Cluster_Resume, when_nobody_waits_any_more_it_says_that_it_was_interrupted)
{
  begin();
  ask("a");
  ASSERT_TRUE(restart());
  questions();
  answer_all();
  EXPECT_FALSE(decide()) << "an agent may come yet";
  now_ += 8000;
  EXPECT_TRUE(decide());
  EXPECT_EQ(state(), "interrupted");
  EXPECT_NE(text().find("no agent waits for the choice any more"), std::string::npos) << text();
  EXPECT_FALSE(round_->takes("a", now_)) << "the next request begins another choice";
  EXPECT_TRUE(round_->finished(now_));
}

TEST_F(Cluster_Resume, an_old_or_a_broken_one_is_not_resumed)
{
  begin();
  asks_and_hears("a");
  EXPECT_FALSE(restart(Cluster_Limits().window_msec + Cluster_Limits().announce_msec));
  begin();
  json_spirit::Object kept = round_->kept();
  set_value(kept, "tickets", "none");
  EXPECT_THROW((void)Cluster_Round::resume(Cluster_Limits(), kept, 1, 1, now_), std::exception);
  kept = round_->kept();
  EXPECT_THROW((void)Cluster_Round::resume(Cluster_Limits(), kept, 1, 1, now_ - 1), std::exception);
}

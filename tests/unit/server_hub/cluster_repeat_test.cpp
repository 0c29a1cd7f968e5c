#include "cluster_round_fixture.h"

using namespace kestrel;
using namespace kestrel_test;

namespace
{
/// Agents that give their requests names, and repeat one whose reply they have not seen.
class Cluster_Repeat : public Cluster_Round_Test
{
protected:
  static Cluster_Request named(const std::string& host, const std::string& id)
  {
    Cluster_Request request = request_of(host);
    request.request_id = id;
    return request;
  }
  unsigned ask_named(const std::string& host, const std::string& id)
  {
    return round_->add(named(host, id), now_);
  }
  /// The ticket of a request that must be known.
  unsigned repeat(const std::string& host, const std::string& id)
  {
    unsigned ticket = 99;
    EXPECT_TRUE(round_->repeated(named(host, id), now_, ticket));
    return ticket;
  }
  void answer_all()
  {
    questions();
    round_->answered("a", node(1));
    round_->answered("b", node(2));
  }
  bool restart()
  {
    json_spirit::Value kept;
    std::string error;
    EXPECT_TRUE(read_json(write_json(round_->kept()), kept, error)) << error;
    now_ += 1000;
    round_ = Cluster_Round::resume(Cluster_Limits(), kept.get_obj(), 1700000000, 17, now_);
    return round_ != nullptr;
  }
  size_t tickets() const
  {
    const json_spirit::Object explained = round_->explanation(const_cast<Known_Hosts&>(view_));
    return json_spirit::find_value(explained, "announcements").get_array().size();
  }
};
} // namespace

TEST_F(Cluster_Repeat, only_the_same_request_of_the_same_host_is_a_repetition)
{
  begin(backup_job({"a", "b"}));
  EXPECT_EQ(ask_named("a", "r1"), 0u);
  EXPECT_EQ(ask("b"), 1u);
  unsigned ticket = 99;
  EXPECT_FALSE(round_->repeated(named("a", "r2"), now_, ticket));
  EXPECT_FALSE(round_->repeated(named("b", "r1"), now_, ticket));
  EXPECT_FALSE(round_->repeated(named("b", ""), now_, ticket))
      << "without names each is a request of its own";
  EXPECT_EQ(ticket, 99u);
  EXPECT_EQ(repeat("a", "r1"), 0u);
  EXPECT_EQ(round_->asked(0), 2u);
  EXPECT_EQ(round_->asked(1), 1u);
  EXPECT_EQ(tickets(), 2u);
}

TEST_F(Cluster_Repeat, a_repeated_request_gets_one_announcement)
{
  begin(backup_job({"a", "b"}));
  const unsigned ticket = ask_named("a", "r1");
  round_->reply_written(ask("b"), true, now_);
  round_->reply_written(ticket, true, now_); // on its way lost
  repeat("a", "r1");
  answer_all();
  EXPECT_TRUE(decide());
  EXPECT_EQ(announce(), Hosts()) << "the chosen agent waits for its reply, the other one for that";
  round_->reply_written(ticket, true, now_, 2);
  EXPECT_EQ(announce(), Hosts{"a"});
  EXPECT_EQ(announce(), Hosts{"b"});
  EXPECT_EQ(announce(), Hosts());
}

TEST_F(Cluster_Repeat, only_the_reply_to_the_last_repetition_counts)
{
  begin(backup_job({"a", "b"}));
  const unsigned ticket = ask_named("a", "r1");
  round_->reply_written(ask("b"), true, now_);
  repeat("a", "r1");
  answer_all();
  EXPECT_TRUE(decide());
  round_->reply_written(ticket, false, now_, 1); // its connection is told to have broken after the repetition
  EXPECT_EQ(round_->give_up(view_, now_), Hosts());
  EXPECT_EQ(round_->choice().host_uuid, "a");
  round_->reply_written(ticket, true, now_, 2);
  EXPECT_EQ(announce(), Hosts{"a"});
}

TEST_F(Cluster_Repeat, who_was_given_up_is_waited_for_again)
{
  begin(backup_job({"a", "b"}));
  const unsigned ticket = ask_named("a", "r1");
  round_->reply_written(ask("b"), true, now_);
  answer_all();
  round_->reply_written(ticket, false, now_);
  EXPECT_EQ(repeat("a", "r1"), ticket);
  round_->reply_written(ticket, true, now_, 2);
  EXPECT_TRUE(decide());
  EXPECT_EQ(round_->choice().host_uuid, "a") << "its agent asked after all";
  EXPECT_EQ(announce(), Hosts{"a"});
  EXPECT_EQ(announce(), Hosts{"b"});
}

TEST_F(Cluster_Repeat, an_announcement_that_may_have_gone_out_is_not_repeated)
{
  begin(backup_job({"a", "b"}));
  const unsigned ticket = ask_named("a", "r1");
  round_->reply_written(ask("b"), true, now_);
  round_->reply_written(ticket, true, now_);
  answer_all();
  EXPECT_TRUE(decide());
  EXPECT_EQ(announce(Agent_Call::late), Hosts{"a"}) << "its agent takes it when it has its reply";
  EXPECT_EQ(repeat("a", "r1"), ticket);
  round_->reply_written(ticket, true, now_, 2);
  EXPECT_EQ(announce(), Hosts{"b"});
  EXPECT_EQ(announce(), Hosts());
  EXPECT_EQ(round_->choice().host_uuid, "a");
}

TEST_F(Cluster_Repeat, one_that_could_not_be_sent_goes_out_after_the_repetition)
{
  begin(backup_job({"a"}));
  const unsigned ticket = ask_named("a", "r1");
  round_->reply_written(ticket, true, now_);
  answer_all();
  EXPECT_TRUE(decide());
  EXPECT_EQ(announce(Agent_Call::offline), Hosts{"a"});
  repeat("a", "r1");
  EXPECT_EQ(announce(), Hosts());
  round_->reply_written(ticket, true, now_, 2);
  EXPECT_EQ(announce(), Hosts{"a"});
}

TEST_F(Cluster_Repeat, a_round_is_kept_as_long_as_its_requests_may_come_again)
{
  begin(backup_job({"a"}));
  round_->reply_written(ask_named("a", "r1"), true, now_);
  questions();
  round_->answered("a", node(1, false, false)); // nobody can
  now_ += 3000;
  EXPECT_TRUE(decide());
  EXPECT_EQ(announce(), Hosts{"a"});
  now_ += 41000;
  EXPECT_FALSE(round_->finished(now_));
  EXPECT_FALSE(round_->takes("a", now_)) << "another request begins a round of its own";
  now_ += 1000;
  EXPECT_TRUE(round_->finished(now_));
}

TEST_F(Cluster_Repeat, is_known_after_a_restart_of_the_server)
{
  begin(backup_job({"a", "b"}));
  const unsigned ticket = ask_named("a", "r1"); // killed before it was known whether the reply had left
  round_->reply_written(ask("b"), true, now_);
  ASSERT_TRUE(restart());
  EXPECT_EQ(repeat("a", "r1"), ticket);
  round_->reply_written(ticket, true, now_, 2);
  answer_all();
  EXPECT_TRUE(decide());
  EXPECT_EQ(announce(), Hosts{"a"});
  ASSERT_TRUE(restart());
  EXPECT_EQ(repeat("a", "r1"), ticket);
  round_->reply_written(ticket, true, now_, 3);
  EXPECT_EQ(announce(), Hosts{"b"}) << "the first one has been told";
  EXPECT_EQ(tickets(), 2u);
}

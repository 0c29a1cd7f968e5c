#include "cluster_round_fixture.h"

using namespace kestrel;
using namespace kestrel_test;

TEST_F(Cluster_Round_Test, decides_as_soon_as_every_connected_host_has_asked_and_answered)
{
  begin();
  ask("a");
  EXPECT_EQ(questions(), (Hosts{"a", "b", "c"}));
  EXPECT_EQ(questions(), Hosts()) << "each is asked once";
  EXPECT_EQ(write_json(round_->question()),
            R"({"instance":"DB1","uid":"user","virtual_address":"10.0.0.9"})");
  round_->answered("a", node(1));
  round_->answered("b", node(2));
  ask("b");
  ask("c");
  EXPECT_FALSE(decide()) << "c has not answered";
  round_->answered("c", node(3));
  EXPECT_TRUE(decide());
  EXPECT_FALSE(decide()) << "once";
  EXPECT_EQ(round_->choice().node_id, 1);
}

TEST_F(Cluster_Round_Test, waits_for_a_connected_host_that_has_not_asked_until_the_window_is_over)
{
  begin();
  all_ask_and_answer({"a", "b"});
  now_ += 2999;
  EXPECT_FALSE(decide());
  now_ += 1;
  EXPECT_TRUE(decide());
  EXPECT_EQ(round_->choice().host_uuid, "a");
}

TEST_F(Cluster_Round_Test, asks_the_nodes_even_without_a_window)
{
  Cluster_Limits limits;
  limits.window_msec = 0;
  round_.reset(new Cluster_Round(limits, backup_job(), request_of("a"), 1700000000, 17, now_));
  ask("a");
  EXPECT_EQ(questions(), (Hosts{"a", "b", "c"}));
  EXPECT_FALSE(decide());
  for (const char* host : {"a", "b", "c"})
    round_->answered(host, node(host[0]));
  EXPECT_TRUE(decide());
  EXPECT_TRUE(round_->choice().success);
}

TEST_F(Cluster_Round_Test, does_not_wait_for_a_host_that_is_not_connected)
{
  view_.online.erase("c");
  begin();
  all_ask_and_answer({"a", "b"});
  EXPECT_TRUE(decide());
  EXPECT_EQ(problem_of("c"), "its agent is not connected");
}

TEST_F(Cluster_Round_Test, hosts_that_nobody_named_are_awaited_for_the_whole_window)
{
  Cluster_Job job;
  job.instance = "DB1";
  begin(job);
  all_ask_and_answer({"a", "b"});
  EXPECT_FALSE(decide());
  now_ += 3000;
  EXPECT_TRUE(decide());
}

TEST_F(Cluster_Round_Test, a_late_answer_does_not_hold_the_choice_for_ever)
{
  begin();
  for (const char* host : {"a", "b", "c"})
    round_->reply_written(ask(host), true, now_);
  questions();
  round_->answered("b", node(2));
  round_->answered("c", node(3));
  now_ += 3000;
  EXPECT_FALSE(decide()) << "a may still answer";
  now_ += 5000;
  EXPECT_TRUE(decide());
  EXPECT_EQ(round_->choice().node_id, 2);
  EXPECT_EQ(problem_of("a"), "its agent did not answer in time");
  round_->answered("a", node(1));
  EXPECT_EQ(problem_of("a"), "its agent did not answer in time") << "too late to count";
}

TEST_F(Cluster_Round_Test, a_host_that_was_not_reached_is_asked_again_but_not_for_ever)
{
  begin(backup_job({"a"}));
  ask("a");
  for (int tries = 0; tries < 3; ++tries) {
    EXPECT_EQ(questions(), Hosts{"a"});
    round_->answered("a", failed(Agent_Call::lost));
  }
  EXPECT_EQ(questions(), Hosts());
  now_ += 3000;
  EXPECT_TRUE(decide());
  EXPECT_FALSE(round_->choice().success);
}

TEST_F(Cluster_Round_Test, a_host_that_refuses_is_not_asked_again)
{
  begin(backup_job({"a", "b"}));
  ask("a");
  ask("b");
  questions();
  round_->answered("a", failed(Agent_Call::refused));
  EXPECT_EQ(questions(), Hosts());
  round_->answered("a", node(1));
  round_->answered("b", node(2));
  EXPECT_TRUE(decide());
  EXPECT_EQ(round_->choice().node_id, 2) << "a second answer of a host counts for nothing";
}

TEST_F(Cluster_Round_Test, an_agent_that_went_away_after_its_answer_is_not_chosen)
{
  begin();
  all_ask_and_answer();
  view_.online.erase("a");
  EXPECT_TRUE(decide());
  EXPECT_EQ(round_->choice().host_uuid, "b");
}

TEST_F(Cluster_Round_Test, a_failure_is_told_only_when_the_window_is_over)
{
  begin(backup_job({"a"}));
  round_->reply_written(ask("a"), true, now_);
  questions();
  round_->answered("a", node(1, false, false));
  EXPECT_FALSE(decide());
  now_ += 3000;
  EXPECT_TRUE(decide());
  EXPECT_EQ(announce(), Hosts{"a"});
  EXPECT_EQ(params_,
            R"({"definition_uuid":"job","instance":"DB1","host_uuid":"","state":"failed","node_id":-1,)"
            R"("selection_time":1700000000})");
}

TEST_F(Cluster_Round_Test, announces_only_after_the_reply_and_the_decision)
{
  begin(backup_job({"a"}));
  const unsigned ticket = ask("a");
  questions();
  round_->answered("a", node(1));
  EXPECT_EQ(announce(), Hosts());
  EXPECT_TRUE(decide());
  EXPECT_EQ(announce(), Hosts()) << "the reply has not left";
  round_->reply_written(ticket, true, now_);
  EXPECT_EQ(announce(), Hosts{"a"});
  EXPECT_EQ(params_,
            R"({"definition_uuid":"job","instance":"DB1","host_uuid":"a","state":"success","node_id":1,)"
            R"("selection_time":1700000000})");
  EXPECT_EQ(announce(), Hosts()) << "once";
  round_->reply_written(ticket, true, now_);
  EXPECT_EQ(announce(), Hosts());
}

TEST_F(Cluster_Round_Test, each_request_gets_its_own_announcement)
{
  begin(backup_job({"a"}));
  round_->reply_written(ask("a"), true, now_);
  round_->reply_written(ask("a"), true, now_);
  questions();
  round_->answered("a", node(1));
  EXPECT_TRUE(decide());
  EXPECT_EQ(announce(), (Hosts{"a", "a"}));
}

TEST_F(Cluster_Round_Test, the_chosen_node_hears_before_the_others)
{
  begin();
  view_.running = {{"a", 1}, {"b", 0}, {"c", 1}};
  all_ask_and_answer();
  EXPECT_TRUE(decide());
  EXPECT_EQ(announce(), Hosts{"b"});
  EXPECT_EQ(announce(), (Hosts{"a", "c"}));
}

TEST_F(Cluster_Round_Test, another_node_is_chosen_when_the_first_cannot_be_told)
{
  begin();
  all_ask_and_answer();
  EXPECT_TRUE(decide());
  EXPECT_EQ(round_->choice().host_uuid, "a");
  view_.online.erase("a");
  EXPECT_EQ(announce(), Hosts());
  now_ += 2999;
  round_->give_up(view_, now_);
  EXPECT_EQ(round_->choice().host_uuid, "a");
  now_ += 1;
  round_->give_up(view_, now_);
  EXPECT_EQ(round_->choice().host_uuid, "b");
  EXPECT_EQ(problem_of("a"), "it was chosen first, but its agent could not be told in time");
  EXPECT_EQ(announce(), Hosts{"b"});
  EXPECT_EQ(announce(), Hosts{"c"});
  view_.online.insert("a");
  EXPECT_EQ(announce(), Hosts{"a"}) << "it hears that b was chosen";
  EXPECT_NE(params_.find(R"("host_uuid":"b")"), std::string::npos);
}

TEST_F(Cluster_Round_Test, a_node_that_may_have_heard_stays_chosen)
{
  for (const Agent_Call told : {Agent_Call::lost, Agent_Call::late}) {
    begin();
    all_ask_and_answer();
    EXPECT_TRUE(decide());
    EXPECT_EQ(announce(told), Hosts{"a"});
    now_ += 10000;
    round_->give_up(view_, now_);
    EXPECT_EQ(round_->choice().host_uuid, "a");
    EXPECT_EQ(announce(), (Hosts{"b", "c"})) << "and a is not told twice";
  }
}

TEST_F(Cluster_Round_Test, a_node_that_refuses_the_announcement_is_replaced)
{
  begin();
  all_ask_and_answer();
  EXPECT_TRUE(decide());
  EXPECT_EQ(announce(Agent_Call::refused), Hosts{"a"});
  EXPECT_EQ(round_->choice().host_uuid, "b");
  EXPECT_EQ(announce(), Hosts{"b"});
  EXPECT_EQ(announce(), Hosts{"c"});
}

TEST_F(Cluster_Round_Test, nobody_is_left_when_each_of_them_refuses)
{
  begin(backup_job({"a", "b"}));
  all_ask_and_answer({"a", "b"});
  EXPECT_TRUE(decide());
  EXPECT_EQ(announce(Agent_Call::refused), Hosts{"a"});
  EXPECT_EQ(announce(Agent_Call::refused), Hosts{"b"});
  EXPECT_FALSE(round_->choice().success);
  EXPECT_EQ(announce(), Hosts());
  now_ += 3000;
  EXPECT_TRUE(round_->finished(now_));
}

TEST_F(Cluster_Round_Test, an_announcement_that_could_not_be_sent_is_due_again)
{
  begin(backup_job({"a"}));
  all_ask_and_answer({"a"});
  EXPECT_TRUE(decide());
  EXPECT_EQ(announce(Agent_Call::offline), Hosts{"a"});
  EXPECT_EQ(announce(), Hosts{"a"});
}

TEST_F(Cluster_Round_Test, an_announcement_that_comes_too_late_for_its_agent_is_given_up)
{
  begin();
  all_ask_and_answer();
  view_.online.erase("c");
  EXPECT_TRUE(decide());
  EXPECT_EQ(announce(), Hosts{"a"});
  EXPECT_EQ(announce(), Hosts{"b"});
  now_ += 13999;
  EXPECT_EQ(round_->give_up(view_, now_), Hosts());
  now_ += 1;
  view_.online.insert("c");
  EXPECT_EQ(announce(), Hosts()) << "c's next run would take it";
  EXPECT_EQ(round_->give_up(view_, now_), Hosts{"name of c"});
  EXPECT_EQ(round_->give_up(view_, now_), Hosts());
}

TEST_F(Cluster_Round_Test, an_agent_that_never_saw_its_reply_is_neither_chosen_nor_told)
{
  begin(backup_job({"a", "b"}));
  const unsigned lost = ask("a");
  round_->reply_written(ask("b"), true, now_);
  questions();
  round_->answered("a", node(1));
  round_->answered("b", node(2));
  round_->reply_written(lost, false, now_);
  EXPECT_TRUE(decide());
  EXPECT_EQ(round_->choice().host_uuid, "b");
  EXPECT_EQ(announce(), Hosts{"b"});
  EXPECT_EQ(announce(), Hosts());
}

TEST_F(Cluster_Round_Test, a_chosen_agent_whose_reply_is_lost_afterwards_is_replaced_at_once)
{
  begin(backup_job({"a", "b"}));
  const unsigned slow = ask("a");
  round_->reply_written(ask("b"), true, now_);
  questions();
  round_->answered("a", node(1));
  round_->answered("b", node(2));
  EXPECT_TRUE(decide());
  EXPECT_EQ(round_->choice().host_uuid, "a");
  round_->reply_written(slow, false, now_);
  round_->give_up(view_, now_);
  EXPECT_EQ(round_->choice().host_uuid, "b");
  EXPECT_EQ(announce(), Hosts{"b"});
}

TEST_F(Cluster_Round_Test, requests_within_the_window_share_the_choice)
{
  begin(backup_job({"a"}));
  all_ask_and_answer({"a"});
  EXPECT_TRUE(decide());
  now_ += 2999;
  EXPECT_TRUE(round_->takes("a", now_));
  now_ += 1;
  EXPECT_FALSE(round_->takes("a", now_)) << "a has had its choice";
}

TEST_F(Cluster_Round_Test, a_host_that_is_late_joins_the_choice_and_one_that_asks_again_does_not)
{
  begin();
  all_ask_and_answer({"a", "b"});
  now_ += 3000;
  EXPECT_TRUE(decide());
  EXPECT_EQ(announce(), Hosts{"a"});
  EXPECT_EQ(announce(), Hosts{"b"});
  now_ += 59999;
  EXPECT_TRUE(round_->takes("c", now_));
  EXPECT_FALSE(round_->takes("a", now_));
  round_->reply_written(ask("c"), true, now_);
  EXPECT_EQ(announce(), Hosts{"c"});
  EXPECT_NE(params_.find(R"("host_uuid":"a")"), std::string::npos);
  now_ += 1;
  EXPECT_FALSE(round_->takes("d", now_));
}

TEST_F(Cluster_Round_Test, nobody_joins_a_failure_of_before)
{
  begin();
  round_->reply_written(ask("a"), true, now_);
  view_.online.clear();
  now_ += 3000;
  EXPECT_TRUE(decide());
  EXPECT_FALSE(round_->takes("b", now_));
}

TEST_F(Cluster_Round_Test, nobody_joins_a_closed_round)
{
  begin();
  EXPECT_TRUE(round_->takes("a", now_));
  round_->close();
  EXPECT_FALSE(round_->takes("a", now_));
}

TEST_F(Cluster_Round_Test, a_restore_goes_to_the_master_that_asks_late)
{
  Cluster_Job job = backup_job();
  job.kind = Cluster_Job::Kind::restore;
  begin(job, true);
  round_->reply_written(ask("a", true), true, now_);
  round_->reply_written(ask("b", true), true, now_);
  questions();
  round_->answered("a", node(1));
  round_->answered("b", node(2));
  round_->answered("c", node(3, true));
  now_ += 3000;
  EXPECT_TRUE(decide());
  EXPECT_EQ(round_->choice().host_uuid, "c");
  EXPECT_EQ(announce(), (Hosts{"a", "b"})) << "nobody waits for an agent that did not ask";
  now_ += 1000;
  EXPECT_TRUE(round_->takes("c", now_));
  round_->reply_written(ask("c", true), true, now_);
  EXPECT_EQ(announce(), Hosts{"c"});
}

TEST_F(Cluster_Round_Test, without_a_known_instance_nobody_is_asked)
{
  Cluster_Job job = backup_job({"a"});
  job.instance.clear();
  begin(job);
  round_->reply_written(ask("a"), true, now_);
  EXPECT_EQ(questions(), Hosts());
  now_ += 3000;
  EXPECT_TRUE(decide());
  EXPECT_FALSE(round_->choice().success);
  EXPECT_EQ(problem_of("a"), "the instance of the job is not known");
}

TEST_F(Cluster_Round_Test, a_reply_that_nobody_reports_does_not_keep_the_round_for_ever)
{
  begin(backup_job({"a"}));
  ask("a");
  questions();
  round_->answered("a", node(1));
  EXPECT_TRUE(decide());
  now_ += 100000;
  EXPECT_EQ(round_->give_up(view_, now_), Hosts{"name of a"});
  round_->give_up(view_, now_);
  EXPECT_TRUE(round_->finished(now_ + 60000));
}

TEST(Cluster_Node_State, only_a_whole_answer_of_the_right_types_counts)
{
  Node_State state;
  const auto read = [&](const std::string& text) {
    json_spirit::Value value;
    std::string error;
    EXPECT_TRUE(read_json(text, value, error)) << error;
    return read_node_state(value, state);
  };
  EXPECT_TRUE(read(R"({"instance":"","node_id":7,"is_master":true,"online":false,"further":[]})"));
  EXPECT_EQ(state.node_id, 7);
  EXPECT_TRUE(state.is_master);
  EXPECT_FALSE(state.online);
  for (const char* text :
       {"null", "[]", "true", "\"x\"", "{}", R"({"node_id":"7","is_master":true,"online":true})",
        R"({"node_id":7,"is_master":1,"online":true})", R"({"node_id":7,"is_master":true})",
        R"({"node_id":7.0,"is_master":true,"online":true})",
        R"({"node_id":-1,"is_master":true,"online":true})",
        R"({"node_id":4294967296,"is_master":true,"online":true})"}) {
    EXPECT_FALSE(read(text)) << text;
    EXPECT_FALSE(state.problem.empty()) << text;
    EXPECT_EQ(state.node_id, -1) << text;
  }
}

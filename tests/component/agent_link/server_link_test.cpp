#include "agent/server_link.h"

#include "rpc/json_rpc_dispatcher.h"
#include "scripted_server.h"
#include "support/log_capture.h"
#include "support/relay.h"
#include "support/waiting.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <set>

using namespace kestrel_test;
using namespace kestrel;

namespace
{
/// A host whose jobs and runs the test makes up.
class Server_Link_Test : public ::testing::Test
{
protected:
  Server_Link_Test()
  {
    EXPECT_TRUE(network_.start());
    EXPECT_TRUE(dispatcher_.bind(
        "test.echo", [](const json_spirit::Value& params, json_spirit::Value& result, JSON_RPC_Error&) {
          result = params;
          return true;
        }));
    EXPECT_TRUE(dispatcher_.start_with_defaults());
  }
  ~Server_Link_Test() override
  {
    link_.reset();
    EXPECT_TRUE(dispatcher_.stop());
    network_.stop();
  }

  void start_link(const std::string& url)
  {
    Server_Link::Settings settings;
    settings.url = url;
    settings.access = Agent_Server::access();
    settings.tls.ca_pem = server_.ca_pem();
    settings.longest_delay_msec = 20;
    settings.report_msec = 50;
    settings.hello_msec = 60 * 1000;
    tune(settings);
    Link_Host host;
    host.hello = [this] {
      json_spirit::Object hello;
      set_value(hello, "version", "9.9");
      set_value(hello, "jobs", json_spirit::Array());
      const std::lock_guard<std::mutex> guard(mutex_);
      set_value(hello, "turn", ++hellos_);
      return hello;
    };
    host.unsent_runs = [this](unsigned limit) {
      const std::lock_guard<std::mutex> guard(mutex_);
      json_spirit::Array runs;
      for (const std::string& id : unsent_) {
        json_spirit::Object record;
        set_value(record, "run_id", id);
        if (runs.size() < limit)
          runs.push_back(record);
      }
      return runs;
    };
    host.post_runs = [this](const json_spirit::Array& records, Report_Answer& answer) {
      const std::lock_guard<std::mutex> guard(mutex_);
      std::string ids;
      bool wanted = true;
      for (const json_spirit::Value& record : records) {
        const std::string id = json_spirit::find_value(record.get_obj(), "run_id").get_str();
        ids += id + " ";
        wanted = wanted && unwanted_.count(id) == 0;
        if (listed_as_refused_.count(id) != 0)
          answer.refused.push_back(Refused_Run{id, "listed"});
        else if (names_what_it_stores_)
          answer.stored.push_back(id);
      }
      answer.reason = "of no use";
      posts_.push_back(ids);
      return !wanted ? Report_Outcome::refused : report_outcome_;
    };
    host.refuse = [this](const std::vector<Refused_Run>& runs) {
      const std::lock_guard<std::mutex> guard(mutex_);
      for (const Refused_Run& run : runs) {
        refused_.push_back(run.run_id + ": " + run.reason);
        if (keeps_notes_)
          unsent_.erase(std::remove(unsent_.begin(), unsent_.end(), run.run_id), unsent_.end());
      }
      return true;
    };
    host.acknowledge = [this](const std::vector<std::string>& ids) {
      const std::lock_guard<std::mutex> guard(mutex_);
      for (const std::string& id : ids)
        unsent_.erase(std::remove(unsent_.begin(), unsent_.end(), id), unsent_.end());
      return true;
    };
    link_ = std::make_unique<Server_Link>(settings, host, dispatcher_, network_, &heartbeats_);
    link_->start();
  }

  /// The connection may be cut at any moment.
  bool answered_echo_now()
  {
    json_spirit::Object answer;
    return server_.try_call("test.echo", json_spirit::Object(), answer) &&
           write_json(json_spirit::find_value(answer, "result")) == "{}";
  }
  std::vector<std::string> posts()
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    return posts_;
  }
  std::vector<std::string> unsent()
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    return unsent_;
  }
  bool answered_echo()
  {
    json_spirit::Object params;
    set_value(params, "word", "hello");
    return write_json(json_spirit::find_value(server_.call("test.echo", params), "result")) ==
           "{\"word\":\"hello\"}";
  }
  static Job_Notice notice(const std::string& id, int progress, const std::string& item = "")
  {
    Job_Notice made;
    made.id = id;
    made.state = JOB_STATE_RUNNING;
    made.progress = progress;
    made.item = item;
    return made;
  }
  static int progress_of(const json_spirit::Object& params)
  {
    return json_spirit::find_value(params, "progress").get_int();
  }

  std::function<void(Server_Link::Settings&)> tune = [](Server_Link::Settings&) {};
  Log_Capture log_;
  Agent_Server server_;
  Heartbeats heartbeats_;
  JSON_RPC_Dispatcher dispatcher_;
  Network_Threads network_;
  std::mutex mutex_;
  int hellos_ = 0;
  std::vector<std::string> unsent_;
  std::vector<std::string> posts_;
  std::set<std::string> unwanted_;          ///< a batch with one of them is refused as a whole
  std::set<std::string> listed_as_refused_; ///< are refused one by one
  bool names_what_it_stores_ = true;
  bool keeps_notes_ = true; ///< of refused ones
  std::vector<std::string> refused_;
  Report_Outcome report_outcome_ = Report_Outcome::answered;
  std::unique_ptr<Server_Link> link_;
};

TEST_F(Server_Link_Test, greets_first_with_its_key_and_then_serves)
{
  start_link(server_.url());
  ASSERT_TRUE(server_.wait_greeting());
  EXPECT_EQ(std::vector<std::string>{"agent.hello"}, server_.methods(0));
  EXPECT_EQ(std::vector<std::string>{Agent_Server::access()}, server_.keys());
  EXPECT_EQ("9.9", json_spirit::find_value(server_.greeting_at(0), "version").get_str());
  EXPECT_TRUE(answered_echo());
  EXPECT_TRUE(eventually([&] { return link_->status().connected; }));
  EXPECT_FALSE(log_.contains(Agent_Server::access_key()));
}

TEST_F(Server_Link_Test, tells_of_jobs_and_instances_in_between)
{
  start_link(server_.url());
  ASSERT_TRUE(eventually([&] { return link_->status().connected; }));
  link_->job_changed(notice("d1", 10));
  json_spirit::Object instance;
  set_value(instance, "name", "ORCL");
  link_->instances_changed({instance});
  ASSERT_TRUE(eventually([&] { return server_.notices("job.state").size() == 1; }));
  ASSERT_TRUE(eventually([&] { return server_.notices("instance.changed").size() == 1; }));
  EXPECT_EQ("{\"instances\":[{\"name\":\"ORCL\"}]}", write_json(server_.notices("instance.changed")[0]));
}

TEST_F(Server_Link_Test, comes_back_and_greets_again_after_each_cut)
{
  log_.allow(LM_WARNING, "No connection to the backup server");
  start_link(server_.url());
  for (size_t number = 0; number < 5; ++number) {
    ASSERT_TRUE(server_.wait_greeting(number));
    server_.hang_up();
  }
  ASSERT_TRUE(server_.wait_greeting(5));
  EXPECT_TRUE(eventually([&] { return answered_echo_now(); }));
  for (size_t number = 0; number < 6; ++number) {
    // Empty when it was hung up before a word was said.
    const std::vector<std::string> methods = server_.methods(number);
    EXPECT_EQ("agent.hello", methods.empty() ? "agent.hello" : methods[0]);
  }
}

TEST_F(Server_Link_Test, what_changed_without_a_connection_is_told_by_the_greeting_alone)
{
  log_.allow(LM_WARNING, "No connection to the backup server");
  server_.upgrade_status = 503;
  start_link(server_.url());
  ASSERT_TRUE(eventually([&] { return !server_.keys().empty(); }));
  link_->job_changed(notice("d1", 10));
  server_.upgrade_status = 101;
  ASSERT_TRUE(eventually([&] { return link_->status().connected; }));
  link_->job_changed(notice("d2", 20));
  ASSERT_TRUE(eventually([&] { return !server_.notices("job.state").empty(); }));
  EXPECT_EQ(20, progress_of(server_.notices("job.state")[0]));
}

TEST_F(Server_Link_Test, says_once_that_its_key_is_refused_and_goes_on_asking)
{
  server_.upgrade_status = 401;
  start_link(server_.url());
  ASSERT_TRUE(eventually([&] { return server_.keys().size() >= 3; }));
  EXPECT_TRUE(link_->status().refused);
  EXPECT_EQ(1u, log_.count(LM_ERROR, "refuses this host"));
  EXPECT_TRUE(log_.expect(LM_ERROR, "refuses this host"));
  EXPECT_FALSE(log_.contains(Agent_Server::access_key()));
  server_.upgrade_status = 101;
  ASSERT_TRUE(eventually([&] { return link_->status().connected; }));
  EXPECT_FALSE(link_->status().refused);
}

TEST_F(Server_Link_Test, dials_again_when_its_greeting_is_refused_or_cut_off)
{
  log_.allow(LM_WARNING, "No connection to the backup server");
  for (const Agent_Server::Greeting way : {Agent_Server::Greeting::refuse, Agent_Server::Greeting::hang_up}) {
    server_.greeting = way;
    if (!link_)
      start_link(server_.url());
    const size_t seen = server_.keys().size();
    ASSERT_TRUE(eventually([&] { return server_.keys().size() >= seen + 3; }));
  }
  EXPECT_EQ(0u, server_.greetings());
  server_.greeting = Agent_Server::Greeting::accept;
  EXPECT_TRUE(server_.wait_greeting());
}

TEST_F(Server_Link_Test, gives_up_on_a_server_that_does_not_answer_its_greeting)
{
  log_.allow(LM_WARNING, "No connection to the backup server");
  tune = [](Server_Link::Settings& settings) { settings.hello_msec = 50; };
  server_.greeting = Agent_Server::Greeting::ignore;
  start_link(server_.url());
  ASSERT_TRUE(eventually([&] { return server_.keys().size() >= 2; }));
  EXPECT_NE(std::string::npos, link_->status().problem.find("greeting")) << link_->status().problem;
}

TEST_F(Server_Link_Test, lives_through_garbage_of_the_server)
{
  log_.allow(LM_WARNING, "No connection to the backup server");
  start_link(server_.url());
  ASSERT_TRUE(server_.wait_greeting());
  const std::string deep = std::string(200, '[') + std::string(200, ']');
  size_t greetings = server_.greetings();
  for (const std::string& text :
       {std::string("garbage"), std::string(), deep,
        std::string("{\"jsonrpc\":\"2.0\",\"id\":1,\"result\":null}"),
        std::string("{\"jsonrpc\":\"2.0\",\"method\":7}"), std::string("\xff\xfe"), std::string("[]"),
        std::string("{\"jsonrpc\":\"2.0\",\"id\":{},\"error\":[]}"), std::string("null")}) {
    server_.say(text);
    // Answered with an error, ignored, or the connection is made anew: the agent serves either way.
    server_.hang_up();
    ASSERT_TRUE(server_.wait_greeting(greetings)) << text;
    // The connection that was hung up may have been the next one already.
    ASSERT_TRUE(eventually([&] { return answered_echo_now(); })) << text;
    greetings = server_.greetings();
  }
}

TEST_F(Server_Link_Test, comes_through_whatever_step_the_network_is_cut_at)
{
  log_.allow(LM_WARNING, "No connection to the backup server");
  Relay relay(server_.port());
  // Handshake, upgrade, greeting, and what follows: a cut after so many bytes from either side.
  for (const Relay::Side side : {Relay::Side::client, Relay::Side::server})
    for (size_t bytes = 0; bytes <= 3000; bytes = bytes * 3 / 2 + 7)
      relay.plan_cut(side, bytes);
  start_link("https://127.0.0.1:" + std::to_string(relay.port()));
  size_t greeted = 0;
  ASSERT_TRUE(eventually([&] {
    // Some cuts lie behind all that is said at the begin.
    if (relay.planned_cuts() != 0 && server_.greetings() > greeted) {
      greeted = server_.greetings();
      server_.hang_up();
    }
    return relay.planned_cuts() == 0 && link_->status().connected;
  }));
  ASSERT_TRUE(eventually([&] { return answered_echo_now(); }));
}

TEST_F(Server_Link_Test, a_server_that_is_none_of_ours_is_named_and_tried_again)
{
  log_.allow(LM_WARNING, "No connection to the backup server");
  Relay relay(server_.port());
  relay.babble("SSH-2.0-OpenSSH_9.2\r\n", 3);
  start_link("https://127.0.0.1:" + std::to_string(relay.port()));
  ASSERT_TRUE(server_.wait_greeting());
  EXPECT_GE(log_.count("No connection to the backup server"), 1u);
}

TEST_F(Server_Link_Test, a_certificate_of_another_authority_is_refused)
{
  log_.allow(LM_WARNING, "No connection to the backup server");
  const Certificate_Authority other("another CA");
  tune = [&](Server_Link::Settings& settings) { settings.tls.ca_pem = other.ca_pem(); };
  start_link(server_.url());
  ASSERT_TRUE(eventually([&] { return !link_->status().problem.empty(); }));
  EXPECT_NE(std::string::npos, link_->status().problem.find("certificate")) << link_->status().problem;
  EXPECT_TRUE(server_.keys().empty());
}

TEST_F(Server_Link_Test, a_slow_server_gets_the_newest_state_of_each_job)
{
  start_link(server_.url());
  ASSERT_TRUE(eventually([&] { return link_->status().connected; }));
  server_.hold = true;
  // Enough to fill every buffer between the two.
  const std::string item(64 * 1024, 'x');
  for (int progress = 1; progress <= 1000; ++progress)
    link_->job_changed(notice(progress % 2 == 0 ? "even" : "odd", progress, item));
  server_.hold = false;
  ASSERT_TRUE(eventually([&] {
    const std::vector<json_spirit::Object> told = server_.notices("job.state");
    return told.size() >= 2 &&
           std::max(progress_of(told.back()), progress_of(told[told.size() - 2])) == 1000 &&
           std::min(progress_of(told.back()), progress_of(told[told.size() - 2])) == 999;
  }));
  EXPECT_LT(server_.notices("job.state").size(), 1000u);
  EXPECT_EQ(1u, server_.greetings());
  // Never backwards.
  std::map<std::string, int> last;
  for (const json_spirit::Object& params : server_.notices("job.state")) {
    int& before = last[json_spirit::find_value(params, "id").get_str()];
    EXPECT_LT(before, progress_of(params));
    before = progress_of(params);
  }
}

TEST_F(Server_Link_Test, reports_runs_until_they_are_acknowledged)
{
  log_.allow(LM_WARNING, "No connection to the backup server");
  unsent_ = {"r1", "r2"};
  report_outcome_ = Report_Outcome::unreachable;
  start_link(server_.url());
  ASSERT_TRUE(eventually([&] { return posts().size() >= 3; }));
  EXPECT_EQ(2u, unsent().size());
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    report_outcome_ = Report_Outcome::answered;
    unsent_.push_back("r3");
  }
  link_->runs_changed();
  ASSERT_TRUE(eventually([&] { return unsent().empty(); }));
  EXPECT_EQ("r1 r2 ", posts().front());
}

TEST_F(Server_Link_Test, reports_at_once_when_a_run_ends_and_with_each_connection)
{
  log_.allow(LM_WARNING, "No connection to the backup server");
  tune = [](Server_Link::Settings& settings) { settings.report_msec = 3600 * 1000; };
  start_link(server_.url());
  ASSERT_TRUE(eventually([&] { return link_->status().connected; }));
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    unsent_ = {"r1"};
  }
  link_->runs_changed();
  ASSERT_TRUE(eventually([&] { return unsent().empty(); }));
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    unsent_ = {"r2"};
  }
  server_.hang_up();
  EXPECT_TRUE(eventually([&] { return unsent().empty(); }));
}

TEST_F(Server_Link_Test, records_that_the_server_does_not_want_hold_up_no_other_and_are_sent_no_more)
{
  tune = [](Server_Link::Settings& settings) { settings.report_msec = 3600 * 1000; };
  // More than a batch of them, before and behind others.
  for (int i = 0; i < 250; ++i) {
    unsent_.push_back("r" + std::to_string(i));
    if (i < 120 || i == 249)
      unwanted_.insert(unsent_.back());
  }
  start_link(server_.url());
  ASSERT_TRUE(eventually([&] { return unsent().empty(); }));
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    EXPECT_EQ(unwanted_.size(), refused_.size());
    EXPECT_EQ("r0: of no use", refused_.front());
    EXPECT_EQ("r249: of no use", refused_.back());
    posts_.clear();
    unsent_ = {"new"};
  }
  link_->runs_changed();
  ASSERT_TRUE(eventually([&] { return unsent().empty(); }));
  EXPECT_EQ(std::vector<std::string>{"new "}, posts());
}

TEST_F(Server_Link_Test, an_answer_may_store_some_records_and_refuse_others)
{
  unsent_ = {"r1", "bad", "r3"};
  listed_as_refused_ = {"bad"};
  start_link(server_.url());
  ASSERT_TRUE(eventually([&] { return unsent().empty(); }));
  EXPECT_EQ(std::vector<std::string>{"r1 bad r3 "}, posts());
  EXPECT_EQ(std::vector<std::string>{"bad: listed"}, refused_);
}

TEST_F(Server_Link_Test, a_server_that_answers_nothing_of_use_is_asked_again_after_a_pause_or_a_new_connection_only)
{
  log_.allow(LM_WARNING, "No connection to the backup server");
  tune = [](Server_Link::Settings& settings) { settings.report_msec = 3600 * 1000; };
  unsent_ = {"r1"};
  names_what_it_stores_ = false;
  start_link(server_.url());
  for (size_t connection = 1; connection <= 3; ++connection) {
    ASSERT_TRUE(eventually([&] { return posts().size() == connection; })) << connection;
    for (int i = 0; i < 100; ++i)
      link_->runs_changed();
    server_.hang_up();
  }
  // Each was one connection's: none came from the hundred notes in between.
  ASSERT_TRUE(eventually([&] { return link_->status().connections >= 4; }));
  ASSERT_TRUE(eventually([&] { return posts().size() >= 4; }));
  EXPECT_LE(posts().size(), link_->status().connections);
  EXPECT_EQ(std::vector<std::string>{"r1"}, unsent());
}

TEST_F(Server_Link_Test, a_refusal_that_cannot_be_noted_is_not_sent_over_and_over)
{
  tune = [](Server_Link::Settings& settings) { settings.report_msec = 3600 * 1000; };
  unsent_ = {"bad", "r2"};
  listed_as_refused_ = {"bad"};
  keeps_notes_ = false;
  start_link(server_.url());
  ASSERT_TRUE(eventually([&] { return posts().size() == 1; }));
  EXPECT_FALSE(link_->report_now());
  EXPECT_EQ((std::vector<std::string>{"bad r2 ", "bad "}), posts());
}

TEST_F(Server_Link_Test, sends_many_records_in_batches)
{
  for (int i = 0; i < 250; ++i)
    unsent_.push_back("r" + std::to_string(i));
  start_link(server_.url());
  ASSERT_TRUE(eventually([&] { return unsent().empty(); }));
  EXPECT_EQ(3u, posts().size());
}

TEST_F(Server_Link_Test, ends_at_once_in_the_middle_of_anything)
{
  log_.allow(LM_WARNING, "No connection to the backup server");
  server_.greeting = Agent_Server::Greeting::ignore;
  tune = [](Server_Link::Settings& settings) { settings.longest_delay_msec = 3600 * 1000; };
  start_link(server_.url());
  ASSERT_TRUE(eventually([&] { return !server_.keys().empty(); }));
  server_.hang_up();
  link_->stop();
  // While it waits before the next dial.
  link_.reset();
  server_.upgrade_status = 503;
  const size_t seen = server_.keys().size();
  start_link(server_.url());
  ASSERT_TRUE(eventually([&] { return server_.keys().size() > seen; }));
  link_->stop();
  EXPECT_TRUE(heartbeats_.stuck().empty());
}
} // namespace

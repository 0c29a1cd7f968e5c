#include "rpc/rest_router.h"
#include "server/cluster_coordinator.h"
#include "server/server_database.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"
#include "support/waiting.h"
#include "json/json_util.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <set>
#include <thread>

using namespace kestrel;
using namespace kestrel_test;

namespace
{
/// Agents without a network: they answer as they are told, and keep what was announced to them.
class Scripted_Hosts : public Cluster_Hosts
{
public:
  std::string name(const std::string& host) override { return host; }
  bool connected(const std::string& host) override
  {
    const std::lock_guard<std::mutex> guard(mutex);
    return online.count(host) > 0;
  }
  unsigned running_jobs(const std::string&, const std::string&) override { return 0; }
  int64_t last_chosen(const std::string&) override { return 0; }

  Agent_Call ask(const std::string& host, const std::string& method, const json_spirit::Value& params, int,
                 json_spirit::Value& result, JSON_RPC_Error& error) override
  {
    if (method == "oscar.node.check_state") {
      if (before_answer)
        before_answer(host);
      json_spirit::Object state;
      state.emplace_back("node_id", host.back() - '0');
      state.emplace_back("is_master", host == "host1");
      state.emplace_back("online", true);
      result = std::move(state);
      return Agent_Call::answered;
    }
    if (before_announcement)
      before_announcement(host);
    if (refuse_announcements) {
      error.message = "refused\n";
      return Agent_Call::refused;
    }
    const std::lock_guard<std::mutex> guard(mutex);
    announced.emplace_back(host, write_json(params));
    result = true;
    return Agent_Call::answered;
  }
  Cluster_Job job_of(const Cluster_Request&) override
  {
    Cluster_Job job;
    job.kind = Cluster_Job::Kind::backup;
    job.instance = "DB1";
    ++rounds;
    job.defined = defined;
    if (defined)
      job.hosts = {"host1", "host2", "host3"};
    return job;
  }
  /// Who was told, sorted.
  std::vector<std::string> told()
  {
    const std::lock_guard<std::mutex> guard(mutex);
    std::vector<std::string> hosts;
    for (const auto& [host, text] : announced)
      hosts.push_back(host);
    std::sort(hosts.begin(), hosts.end());
    return hosts;
  }
  /// How many different announcements there were.
  size_t texts()
  {
    const std::lock_guard<std::mutex> guard(mutex);
    std::set<std::string> different;
    for (const auto& [host, text] : announced)
      different.insert(text);
    return different.size();
  }
  std::string last()
  {
    const std::lock_guard<std::mutex> guard(mutex);
    return announced.empty() ? std::string() : announced.back().second;
  }
  void forget()
  {
    const std::lock_guard<std::mutex> guard(mutex);
    announced.clear();
  }
  size_t announcements()
  {
    const std::lock_guard<std::mutex> guard(mutex);
    return announced.size();
  }

  std::mutex mutex;
  std::set<std::string> online = {"host1", "host2", "host3"};
  std::vector<std::pair<std::string, std::string>> announced;
  std::function<void(const std::string& host)> before_answer;
  std::function<void(const std::string& host)> before_announcement;
  std::atomic<bool> refuse_announcements{false};
  std::atomic<int> rounds{0};
  std::atomic<bool> defined{true};
};

class Cluster_Coordinator_Test : public testing::Test
{
protected:
  Cluster_Coordinator_Test()
  {
    Server_Database::Options options;
    options.path = directory_ / "server.db";
    options.create = true;
    std::string error;
    EXPECT_TRUE(database_.open(options, error)) << error;
    start();
  }
  void start(const Cluster_Limits& limits = Cluster_Limits())
  {
    coordinator_.reset();
    coordinator_.reset(new Cluster_Coordinator(hosts_, history_, limits));
    std::string error;
    EXPECT_TRUE(coordinator_->start(error)) << error;
  }
  Cluster_Coordinator::Ticket request(const std::string& host)
  {
    Cluster_Request asked;
    asked.host_uuid = host;
    asked.definition_uuid = "job";
    return coordinator_->request(asked);
  }

  const Temp_Dir directory_;
  Server_Database database_;
  Cluster_History history_{database_};
  Scripted_Hosts hosts_;
  std::unique_ptr<Cluster_Coordinator> coordinator_;
};
} // namespace

TEST_F(Cluster_Coordinator_Test, requests_at_the_same_time_share_one_choice)
{
  std::vector<std::thread> agents;
  std::vector<int64_t> times(20);
  for (size_t i = 0; i < times.size(); ++i)
    agents.emplace_back([&, i] {
      const Cluster_Coordinator::Ticket ticket = request("host" + std::to_string(i % 3 + 1));
      times[i] = ticket.selection_time;
      coordinator_->reply_listener(ticket)(true);
    });
  for (std::thread& agent : agents)
    agent.join();
  EXPECT_TRUE(eventually([&] { return hosts_.announcements() == times.size(); }));
  EXPECT_EQ(std::set<int64_t>(times.begin(), times.end()).size(), 1u);
  EXPECT_EQ(hosts_.rounds, 1);
  std::set<std::string> texts;
  for (const auto& [host, text] : hosts_.announced)
    texts.insert(text);
  EXPECT_EQ(texts.size(), 1u) << "all hear the same";
}

TEST_F(Cluster_Coordinator_Test, a_reply_that_has_not_left_holds_back_its_announcement_only)
{
  const Cluster_Coordinator::Ticket chosen = request("host1"), slow = request("host2"),
                                    third = request("host3");
  coordinator_->reply_listener(third)(true);
  coordinator_->reply_listener(chosen)(true);
  EXPECT_TRUE(eventually([&] { return hosts_.announcements() == 2; }));
  coordinator_->reply_listener(slow)(true);
  EXPECT_TRUE(eventually([&] { return hosts_.announcements() == 3; }));
  EXPECT_EQ(hosts_.announced[0].first, "host1");
  EXPECT_EQ(hosts_.announced[1].first, "host3");
  EXPECT_EQ(hosts_.announced[2].first, "host2");
}

TEST_F(Cluster_Coordinator_Test, the_explanation_is_kept_before_the_first_announcement)
{
  Log_Capture log;
  log.allow(LM_WARNING, "may not have been told: its agent answered: refused");
  hosts_.refuse_announcements = true;
  for (const char* host : {"host1", "host2", "host3"})
    coordinator_->reply_listener(request(host))(true);
  const auto state = [&] {
    return json_spirit::find_value(history_.list(1, "").at(0).get_obj(), "state").get_str();
  };
  EXPECT_TRUE(eventually([&] { return state() == "failed"; })) << "each was chosen and refused";
  const std::string text = write_json(history_.list(1, "").at(0));
  EXPECT_NE(text.find("its agent refused the announcement: its agent answered: refused (-32603)"),
            std::string::npos)
      << text;
}

TEST_F(Cluster_Coordinator_Test, a_stopped_server_announces_nothing_and_late_replies_are_harmless)
{
  const Cluster_Coordinator::Ticket ticket = request("host1");
  const std::function<void(bool)> listener = coordinator_->reply_listener(ticket);
  coordinator_->stop();
  listener(true);
  coordinator_.reset();
  listener(true);
  EXPECT_EQ(hosts_.announcements(), 0u);
  start();
  EXPECT_EQ(request("host1").selection_time, ticket.selection_time) << "nobody has had a choice yet";
  EXPECT_EQ(hosts_.rounds, 1);
}

TEST_F(Cluster_Coordinator_Test, a_new_run_begins_a_new_choice_within_the_window)
{
  const Cluster_Coordinator::Ticket first = request("host1");
  coordinator_->new_run("job");
  const Cluster_Coordinator::Ticket second = request("host1");
  EXPECT_GT(second.selection_time, first.selection_time);
  EXPECT_EQ(hosts_.rounds, 2);
  coordinator_->new_run("unknown");
}

TEST_F(Cluster_Coordinator_Test, one_host_that_hangs_does_not_hold_up_other_jobs)
{
  std::atomic<bool> hanging{true};
  std::atomic<int> answered{0};
  hosts_.before_answer = [&](const std::string& host) {
    while (host == "host3" && hanging)
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    if (host != "host3")
      ++answered;
  };
  for (int job = 0; job < 40; ++job) {
    Cluster_Request asked;
    asked.definition_uuid = "job" + std::to_string(job);
    for (const char* host : {"host1", "host2", "host3"}) {
      asked.host_uuid = host;
      coordinator_->reply_listener(coordinator_->request(asked))(true);
    }
  }
  EXPECT_TRUE(eventually([&] { return answered == 80; }))
      << "of both other hosts every job knows the state: " << answered;
  // The choices themselves are late, but none is missing and every request is answered for.
  hanging = false;
  EXPECT_TRUE(eventually([&] { return hosts_.announcements() == 120; })) << hosts_.announcements();
}

namespace
{
class Cluster_Flood : public Cluster_Coordinator_Test
{
protected:
  Cluster_Flood()
  {
    limits_.window_msec = 100;
    limits_.state_msec = 200;
    limits_.late_msec = 100;
    limits_.rounds = 12;
    limits_.rounds_of_host = 8;
    start(limits_);
  }
  /// How many requests for one new job after another are taken before one is refused with 429.
  int flood(const std::string& host, const std::string& prefix)
  {
    for (int job = 0; job < 100; ++job)
      try {
        Cluster_Request asked;
        asked.host_uuid = host;
        asked.definition_uuid = prefix + std::to_string(job);
        coordinator_->reply_listener(coordinator_->request(asked))(true);
      } catch (const REST_Error& refused) {
        EXPECT_EQ(refused.status(), 429);
        EXPECT_GT(refused.retry_seconds(), 0);
        EXPECT_NE(std::string(refused.what()).find("not over"), std::string::npos);
        return job;
      }
    return 100;
  }
  Cluster_Limits limits_;
};
} // namespace

TEST_F(Cluster_Flood, one_host_cannot_begin_choices_without_end)
{
  // Nobody may decide meanwhile: the limits count what is open.
  limits_.window_msec = 60000;
  start(limits_);
  hosts_.defined = false;
  EXPECT_EQ(flood("host1", "stray"), 4) << "half of what a host may have";
  EXPECT_EQ(flood("host2", "other"), 2) << "half of what all may have";
  hosts_.defined = true;
  EXPECT_EQ(flood("host3", "job"), 6) << "the other half is for jobs that are defined";
}

TEST_F(Cluster_Flood, a_host_may_go_on_when_its_choices_are_over)
{
  hosts_.defined = false;
  EXPECT_GE(flood("host1", "first"), 1);
  int round = 0;
  EXPECT_TRUE(eventually([&] { return flood("host1", "again" + std::to_string(++round) + "/") > 0; }))
      << "they end by time";
}

namespace
{
/// The server is killed at a chosen moment: the next one finds what the database held then.
class Cluster_Crash : public Cluster_Coordinator_Test
{
protected:
  Cluster_Crash()
  {
    // Whoever has all answers decides at once; no time is over on a busy machine.
    limits_.window_msec = limits_.announce_msec = limits_.hold_msec = limits_.state_msec = 600000;
    start(limits_);
  }
  void ask_and_hear(const std::string& host)
  {
    const Cluster_Coordinator::Ticket ticket = request(host);
    time_ = ticket.selection_time;
    coordinator_->reply_listener(ticket)(true);
  }
  /// How often this stands in what is kept of the newest selection.
  size_t kept(const std::string& text)
  {
    const std::vector<Cluster_History::Unfinished> unfinished = history_.unfinished();
    const std::string whole = unfinished.empty() ? "" : write_json(unfinished.back().kept);
    size_t count = 0;
    for (size_t at = whole.find(text); at != std::string::npos; at = whole.find(text, at + 1))
      ++count;
    return count;
  }
  void await_kept(const std::string& text, size_t count)
  {
    EXPECT_TRUE(eventually([&] { return kept(text) == count; })) << text << ": " << kept(text);
  }
  void crash()
  {
    const std::string path = directory_ / ("crashed" + std::to_string(++crashes_) + ".db");
    {
      Server_Database::Lease session = database_.lease();
      *session << "VACUUM INTO '" + path + "'";
    }
    told_before_ = hosts_.told();
    released_ = true;
    coordinator_.reset(); // what it does yet is not known to the next one
    hosts_.before_answer = nullptr;
    hosts_.before_announcement = nullptr;
    hosts_.forget();
    database_.close();
    Server_Database::Options options;
    options.path = path;
    std::string error;
    ASSERT_TRUE(database_.open(options, error)) << error;
    start(limits_);
  }
  void hold() const
  {
    while (!released_)
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  std::string text() { return write_json(history_.list(1, "").at(0)); }

  Cluster_Limits limits_;
  int64_t time_ = 0;
  int crashes_ = 0;
  std::atomic<bool> released_{false};
  std::vector<std::string> told_before_;
};
typedef std::vector<std::string> Hosts;
} // namespace

TEST_F(Cluster_Crash, after_the_first_request_the_choice_goes_on)
{
  ask_and_hear("host1");
  const int64_t first = time_;
  await_kept(R"("replied":true)", 1);
  crash();
  for (const char* host : {"host2", "host3"}) {
    ask_and_hear(host);
    EXPECT_EQ(time_, first) << "the same time";
  }
  EXPECT_TRUE(eventually([&] { return hosts_.told() == Hosts{"host1", "host2", "host3"}; }));
  EXPECT_EQ(hosts_.texts(), 1u) << "and the same choice";
  EXPECT_EQ(hosts_.rounds, 1);
}

TEST_F(Cluster_Crash, after_all_requests_the_choice_is_made)
{
  hosts_.before_answer = [this](const std::string&) { hold(); };
  for (const char* host : {"host1", "host2", "host3"})
    ask_and_hear(host);
  await_kept(R"("replied":true)", 3);
  crash();
  EXPECT_TRUE(eventually([&] { return hosts_.told() == Hosts{"host1", "host2", "host3"}; }));
  EXPECT_EQ(hosts_.texts(), 1u);
  EXPECT_NE(text().find("after a restart of the server"), std::string::npos) << text();
}

TEST_F(Cluster_Crash, when_the_chosen_node_may_have_been_told_the_others_hear_of_that_choice)
{
  hosts_.before_announcement = [this](const std::string&) { hold(); };
  for (const char* host : {"host1", "host2", "host3"})
    ask_and_hear(host);
  await_kept(R"("sent":true)", 1);
  await_kept(R"("replied":true)", 3);
  crash();
  EXPECT_TRUE(eventually([&] { return hosts_.told() == Hosts{"host2", "host3"}; }));
  EXPECT_EQ(hosts_.texts(), 1u);
  EXPECT_NE(hosts_.last().find(R"("host_uuid":"host1")"), std::string::npos) << hosts_.last();
  EXPECT_TRUE(eventually([&] { return text().find("which may have heard") != std::string::npos; })) << text();
}

TEST_F(Cluster_Crash, after_one_of_three_announcements_the_others_are_told)
{
  hosts_.before_announcement = [this](const std::string&) {
    // The others lose their connections before they can be told.
    const std::lock_guard<std::mutex> guard(hosts_.mutex);
    hosts_.online = {"host1"};
  };
  for (const char* host : {"host1", "host2", "host3"})
    ask_and_hear(host);
  await_kept(R"("delivered":true)", 1);
  await_kept(R"("replied":true)", 3);
  EXPECT_EQ(hosts_.told(), Hosts{"host1"});
  EXPECT_EQ(kept(R"("sent":true)"), 0u);
  crash();
  EXPECT_EQ(told_before_, Hosts{"host1"});
  {
    const std::lock_guard<std::mutex> guard(hosts_.mutex);
    hosts_.online = {"host1", "host2", "host3"};
  }
  EXPECT_TRUE(eventually([&] { return hosts_.told() == Hosts{"host2", "host3"}; }));
  EXPECT_NE(hosts_.last().find(R"("host_uuid":"host1")"), std::string::npos) << hosts_.last();
}

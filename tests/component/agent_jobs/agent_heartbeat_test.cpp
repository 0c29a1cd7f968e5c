#include "agent_bench.h"

#include "base/heartbeat.h"
#include "jobs/job_event.h"
#include "support/waiting.h"

#include <gtest/gtest.h>

#include <atomic>

using namespace kestrel_test;

namespace
{
typedef std::vector<std::string> Names;
constexpr int64_t hour_msec = 3600 * 1000;

/// Another clock that can be moved on by hours at once.
class Moved_Clock : public kestrel::Clock
{
public:
  explicit Moved_Clock(kestrel::Clock& other) : other_(other), scope_(*this) {}
  time_t now() override { return other_.now(); }
  int64_t monotonic_msec() override { return other_.monotonic_msec() + moved_; }
  void sleep_msec(int64_t msec) override { other_.sleep_msec(msec); }
  void move(int64_t msec) { moved_ += msec; }

private:
  kestrel::Clock& other_;
  std::atomic<int64_t> moved_{0};
  kestrel::Scoped_Clock scope_;
};

/// Holds up the thread of the events, and whoever waits for it, at the end of a run.
class Holding_Listener : private kestrel::Job_Event_Listener
{
public:
  Holding_Listener() { Job_Event_Manager::instance()->add_listener(this); }
  ~Holding_Listener() override
  {
    let_go();
    Job_Event_Manager::instance()->remove_listener(this);
  }
  void let_go() { go_ = true; }
  bool holds() const { return holds_; }

private:
  void handle_outcome(const kestrel::Job_Outcome_Event&) override
  {
    holds_ = true;
    EXPECT_TRUE(eventually([&] { return go_.load(); }));
  }

  std::atomic<bool> holds_{false};
  std::atomic<bool> go_{false};
};

class Agent_Heartbeat : public testing::Test
{
protected:
  Agent_Heartbeat()
  {
    agent_.settings.heartbeats = &beats_;
    agent_.start();
    agent_.sync_documents({agent_.document(1, true)});
  }
  ~Agent_Heartbeat() override { agent_.jobs.reset(); }

  kestrel::Heartbeats beats_;
  Agent_Bench agent_;
  Moved_Clock clock_{agent_.bench.clock};
};
} // namespace

TEST_F(Agent_Heartbeat, goes_on_while_a_run_takes_hours)
{
  const std::string run = agent_.control(1, "run");
  ASSERT_TRUE(agent_.wait_up(1));
  for (int hour = 0; hour < 3; ++hour) {
    clock_.move(hour_msec);
    EXPECT_TRUE(eventually([&] { return beats_.stuck().empty(); })) << "their next turns are in time again";
  }
  agent_.let_go(1);
  EXPECT_EQ("completed", text_of(agent_.wait_ended(run), "state"));
}

TEST_F(Agent_Heartbeat, tells_when_the_thread_that_begins_and_ends_runs_is_held_up)
{
  Holding_Listener listener;
  const std::string run = agent_.control(1, "run");
  agent_.let_go(1);
  ASSERT_TRUE(eventually([&] { return listener.holds(); }));
  clock_.move(hour_msec);
  EXPECT_TRUE(eventually([&] { return beats_.stuck() == Names{"job runner"}; })) << "the schedules go on";
  listener.let_go();
  EXPECT_TRUE(eventually([&] { return beats_.stuck().empty(); }));
  EXPECT_EQ("completed", text_of(agent_.wait_ended(run), "state"));
}

TEST_F(Agent_Heartbeat, ends_with_the_loops)
{
  agent_.stop();
  clock_.move(hour_msec);
  EXPECT_TRUE(beats_.stuck().empty());
}

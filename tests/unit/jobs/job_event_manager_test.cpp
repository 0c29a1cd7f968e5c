#include "unit/jobs/job_fixture.h"

#include <ace/OS_NS_sys_time.h>

#include <cerrno>
#include <stdexcept>
#include <thread>

namespace kestrel_test
{
namespace
{
/// Notes the percentages it hears; may be held up at a gate.
class Listener : public kestrel::Job_Event_Listener
{
public:
  void handle_progress(const Job_Progress_Event& event) override
  {
    if (gate) {
      entered.open();
      gate->wait();
    }
    if (action) {
      action(event);
    }
    const std::lock_guard<std::mutex> guard(mutex);
    heard.push_back(event.progress());
  }
  std::vector<int> all()
  {
    const std::lock_guard<std::mutex> guard(mutex);
    return heard;
  }

  Gate entered;
  Gate* gate = nullptr;
  std::function<void(const Job_Progress_Event&)> action;

private:
  std::mutex mutex;
  std::vector<int> heard;
};

class Job_Events : public testing::Test
{
protected:
  std::unique_ptr<Job_Event> event(int progress)
  {
    return std::unique_ptr<Job_Event>(new Job_Progress_Event(*definition_, progress, 1, 2, 3));
  }

  const Job_Definition_Ptr definition_ = make_definition();
  Listener listener_;
  Job_Event_Manager manager_;
};
} // namespace

TEST_F(Job_Events, come_to_every_listener_in_the_order_in_which_they_were_put)
{
  Listener other;
  manager_.add_listener(&listener_);
  manager_.add_listener(&other);
  std::vector<int> expected;
  for (int i = 0; i < 1000; ++i) {
    ASSERT_LE(0, manager_.putq(event(i), nullptr));
    expected.push_back(i);
  }
  manager_.flush();
  EXPECT_EQ(expected, listener_.all());
  EXPECT_EQ(expected, other.all());
}

TEST_F(Job_Events, of_each_thread_keep_their_order)
{
  manager_.add_listener(&listener_);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([this, t] {
      for (int i = 0; i < 500; ++i) {
        EXPECT_LE(0, manager_.putq(event(t * 1000 + i), nullptr));
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  manager_.flush();
  int next[4] = {0, 0, 0, 0};
  for (const int heard : listener_.all()) {
    EXPECT_EQ(next[heard / 1000]++, heard % 1000);
  }
  EXPECT_EQ(2000u, listener_.all().size());
}

TEST_F(Job_Events, outlive_their_definition)
{
  std::string name;
  listener_.action = [&](const Job_Progress_Event& event) {
    name = event.name() + " " + event.definition_id();
  };
  manager_.add_listener(&listener_);
  std::unique_ptr<Job_Event> event;
  {
    const Job_Definition_Ptr gone = make_definition();
    event.reset(new Job_Progress_Event(*gone, 1, 0, 0, 0));
  }
  ASSERT_LE(0, manager_.putq(std::move(event), nullptr));
  manager_.flush();
  EXPECT_EQ(std::string("nightly ") + DEFINITION_ID, name);
}

TEST_F(Job_Events, are_refused_after_the_close_and_what_was_queued_is_delivered)
{
  Gate gate;
  listener_.gate = &gate;
  manager_.add_listener(&listener_);
  for (int i = 0; i < 10; ++i) {
    ASSERT_LE(0, manager_.putq(event(i), nullptr));
  }
  listener_.entered.wait();
  std::thread closer([this] { manager_.close(); });
  gate.open();
  closer.join();
  EXPECT_EQ(10u, listener_.all().size());
  EXPECT_EQ(-1, manager_.putq(event(10), nullptr));
  EXPECT_EQ(ESHUTDOWN, errno);
  EXPECT_EQ(-1, manager_.post(event(10)));
  manager_.close();
}

TEST_F(Job_Events, wait_for_room_only_as_long_as_they_may)
{
  Gate gate;
  listener_.gate = &gate;
  manager_.add_listener(&listener_);
  ASSERT_LE(0, manager_.putq(event(0), nullptr));
  listener_.entered.wait();
  ACE_Time_Value now = ACE_OS::gettimeofday();
  int put = 0;
  while (manager_.putq(event(++put), &now) >= 0) {
    ASSERT_LT(put, 100000);
  }
  EXPECT_EQ(EWOULDBLOCK, errno);
  EXPECT_EQ(0, manager_.post(event(put))); // never waits
  std::thread waiting([this] { EXPECT_LE(0, manager_.putq(event(-1), nullptr)); });
  gate.open();
  waiting.join();
  manager_.flush();
  EXPECT_EQ(static_cast<std::size_t>(put) + 2, listener_.all().size());
}

TEST_F(Job_Events, that_a_listener_puts_never_wait_for_it)
{
  Gate gate;
  listener_.gate = &gate;
  listener_.action = [this](const Job_Progress_Event& heard) {
    if (heard.progress() == 0) {
      EXPECT_LE(0, manager_.putq(event(-1), nullptr)); // the queue is full
    }
  };
  manager_.add_listener(&listener_);
  ASSERT_LE(0, manager_.putq(event(0), nullptr));
  listener_.entered.wait();
  ACE_Time_Value now = ACE_OS::gettimeofday();
  while (manager_.putq(event(1), &now) >= 0) {
  }
  gate.open();
  manager_.flush();
  manager_.flush();
  EXPECT_EQ(-1, listener_.all().back());
}

TEST_F(Job_Events, of_no_kind_are_refused)
{
  EXPECT_EQ(-1, manager_.putq(std::unique_ptr<Job_Event>(), nullptr));
  EXPECT_EQ(EINVAL, errno);
  EXPECT_EQ(-1, manager_.post(std::unique_ptr<Job_Event>()));
}

TEST_F(Job_Events, do_not_reach_a_listener_that_was_removed)
{
  Gate gate;
  listener_.gate = &gate;
  manager_.add_listener(&listener_);
  ASSERT_LE(0, manager_.putq(event(0), nullptr));
  ASSERT_LE(0, manager_.putq(event(1), nullptr));
  listener_.entered.wait();
  std::atomic<bool> removed(false);
  std::thread remover([&] {
    manager_.remove_listener(&listener_);
    removed = true;
  });
  EXPECT_FALSE(removed); // a call into the listener still runs
  gate.open();
  remover.join();
  manager_.flush();
  EXPECT_GE(2u, listener_.all().size());
}

TEST_F(Job_Events, let_a_listener_remove_itself)
{
  listener_.action = [this](const Job_Progress_Event&) { manager_.remove_listener(&listener_); };
  manager_.add_listener(&listener_);
  ASSERT_LE(0, manager_.putq(event(0), nullptr));
  ASSERT_LE(0, manager_.putq(event(1), nullptr));
  manager_.flush();
  EXPECT_EQ((std::vector<int>{0}), listener_.all());
}

TEST_F(Job_Events, go_on_after_a_listener_threw)
{
  Log_Capture log;
  listener_.action = [](const Job_Progress_Event& event) {
    if (event.progress() == 0) {
      throw std::runtime_error("listener trouble");
    }
  };
  manager_.add_listener(&listener_);
  ASSERT_LE(0, manager_.putq(event(0), nullptr));
  ASSERT_LE(0, manager_.putq(event(1), nullptr));
  manager_.flush();
  EXPECT_TRUE(log.expect(LM_ERROR, "a listener threw: listener trouble"));
  EXPECT_EQ((std::vector<int>{1}), listener_.all());
}

TEST_F(Job_Events, need_no_listener)
{
  EXPECT_LE(0, manager_.putq(event(0), nullptr));
  manager_.flush();
}
} // namespace kestrel_test

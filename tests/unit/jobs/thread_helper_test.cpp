#include "unit/jobs/job_fixture.h"

#include "job/thread_helper.h"
#include "support/no_memory.h"

#include <ace/Log_Record.h>

#include <thread>

namespace kestrel_test
{
namespace
{
const int JOINABLE = THR_NEW_LWP | THR_JOINABLE | THR_INHERIT_SCHED;
const int DETACHED = THR_NEW_LWP | THR_DETACHED | THR_INHERIT_SCHED;

struct Worker {
  void work()
  {
    ++entered;
    if (gate) {
      gate->wait();
    }
    ++done;
    finished.open();
  }
  std::atomic<int> entered{0};
  std::atomic<int> done{0};
  Gate* gate = nullptr;
  Gate finished;
};

struct Hooked_Helper : Thread_Helper {
  explicit Hooked_Helper(int flag) : Thread_Helper(flag, ACE_DEFAULT_THREAD_PRIORITY) {}
  ~Hooked_Helper() override { join(); }
  void handle_starting() override { started_on = std::this_thread::get_id(); }
  std::thread::id started_on;
};
} // namespace

TEST(Thread_Helpers, know_no_thread_before_the_first_spawn)
{
  Thread_Helper helper(JOINABLE, ACE_DEFAULT_THREAD_PRIORITY);
  EXPECT_FALSE(helper.exists());
  EXPECT_FALSE(helper.running());
  EXPECT_EQ(0, helper.join());
}

TEST(Thread_Helpers, run_the_work_and_join_it)
{
  Worker worker;
  Thread_Helper helper(JOINABLE, ACE_DEFAULT_THREAD_PRIORITY);
  EXPECT_LE(0, helper.spawn(&Worker::work, &worker));
  EXPECT_TRUE(helper.exists());
  EXPECT_EQ(0, helper.join());
  EXPECT_EQ(1, worker.done);
  EXPECT_FALSE(helper.exists());
}

TEST(Thread_Helpers, refuse_a_second_thread_while_the_first_runs)
{
  Log_Capture log;
  Gate gate;
  Worker worker;
  worker.gate = &gate;
  Thread_Helper helper(JOINABLE, ACE_DEFAULT_THREAD_PRIORITY);
  ASSERT_LE(0, helper.spawn(&Worker::work, &worker));
  EXPECT_TRUE(helper.running());
  EXPECT_EQ(-1, helper.spawn(&Worker::work, &worker));
  EXPECT_EQ(-1, helper.spawn());
  EXPECT_TRUE(log.expect(LM_EMERGENCY, "already_running is true:\n"));
  gate.open();
  helper.join();
  EXPECT_EQ(1, worker.done);
}

TEST(Thread_Helpers, without_memory_for_their_flag_start_nothing)
{
  Log_Capture log;
  Worker worker;
  std::unique_ptr<Thread_Helper> helper;
  {
    const No_Memory none;
    helper.reset(new Thread_Helper(JOINABLE, ACE_DEFAULT_THREAD_PRIORITY));
  }
  EXPECT_EQ(-1, helper->spawn(&Worker::work, &worker));
  EXPECT_TRUE(log.expect(LM_EMERGENCY, ", _running is NULL:\n"));
  EXPECT_FALSE(helper->exists());
  EXPECT_FALSE(helper->running());
  EXPECT_EQ(0, worker.entered);
}

TEST(Thread_Helpers, spawn_again_after_the_first_thread_has_ended)
{
  Worker worker;
  Thread_Helper helper(JOINABLE, ACE_DEFAULT_THREAD_PRIORITY);
  for (int i = 0; i < 20; ++i) {
    ASSERT_LE(0, helper.spawn(&Worker::work, &worker));
    while (helper.running()) {
      std::this_thread::yield();
    }
  }
  helper.join();
  EXPECT_EQ(20, worker.done);
}

TEST(Thread_Helpers, return_from_spawn_only_when_the_thread_has_begun)
{
  for (int i = 0; i < 50; ++i) {
    Worker worker;
    Hooked_Helper helper(JOINABLE);
    ASSERT_LE(0, helper.spawn(&Worker::work, &worker));
    EXPECT_NE(std::thread::id(), helper.started_on);
    EXPECT_NE(std::this_thread::get_id(), helper.started_on);
  }
}

TEST(Thread_Helpers, join_in_their_destructor)
{
  Worker worker;
  {
    Thread_Helper helper(JOINABLE, ACE_DEFAULT_THREAD_PRIORITY);
    ASSERT_LE(0, helper.spawn(&Worker::work, &worker));
  }
  EXPECT_EQ(1, worker.done);
}

TEST(Thread_Helpers, do_not_track_detached_threads)
{
  Gate gate;
  Worker worker;
  worker.gate = &gate;
  {
    Thread_Helper helper(DETACHED, ACE_DEFAULT_THREAD_PRIORITY);
    ASSERT_LE(0, helper.spawn(&Worker::work, &worker));
    EXPECT_FALSE(helper.exists());
    EXPECT_FALSE(helper.running());
  }
  gate.open();
  worker.finished.wait();
  EXPECT_EQ(1, worker.done);
}

TEST(Thread_Helpers, use_the_flags_of_a_detached_job_thread)
{
  EXPECT_EQ(0x400042, DETACHED);
}

class Job_Logs : public Job_Test
{
protected:
  Fake_Clock clock_;
};

TEST_F(Job_Logs, get_the_lines_of_the_run_and_of_its_helper_threads)
{
  script_.work = [](Job& job) {
    ACE_ERROR((LM_INFO, "from the run\n"));
    struct Say {
      void hello() { ACE_ERROR((LM_DEBUG, "from the helper without an end")); }
    } say;
    Job_Thread_Helper helper(job);
    EXPECT_LE(0, helper.spawn(&Say::hello, &say));
    return helper.join() == 0;
  };
  const Job_Ptr job = make_job();
  EXPECT_EQ("", job->log_path());
  run(*job);
  const std::string text = read_file(job->log_path());
  EXPECT_EQ(0u, job->log_path().find(root_ / "var/log/kestrel3/jobs/"));
  EXPECT_NE(std::string::npos, text.find("from the run\n"));
  EXPECT_NE(std::string::npos, text.find("from the helper without an end\n"));
}

TEST_F(Job_Logs, are_one_file_for_each_run)
{
  script_.work = [](Job&) {
    ACE_ERROR((LM_INFO, "only once\n"));
    return true;
  };
  const Job_Ptr job = make_job();
  run(*job);
  const std::string first = job->log_path();
  run(*job);
  EXPECT_NE(first, job->log_path());
  const std::string text = read_file(job->log_path());
  EXPECT_EQ(text.find("only once"), text.rfind("only once"));
  EXPECT_NE(std::string::npos, text.find("only once"));
}

TEST_F(Job_Logs, do_not_get_the_lines_of_other_threads)
{
  Gate working, go_on;
  script_.work = [&](Job&) {
    working.open();
    go_on.wait();
    return true;
  };
  const Job_Ptr job = make_job();
  ASSERT_EQ(0, job->start());
  working.wait();
  ACE_ERROR((LM_INFO, "agent business\n"));
  go_on.open();
  ASSERT_TRUE(job->wait_end(30000));
  EXPECT_EQ(std::string::npos, read_file(job->log_path()).find("agent business"));
}

TEST_F(Job_Logs, that_cannot_be_written_do_not_stop_the_job)
{
  Log_Capture log;
  root_.write("var/log/kestrel3/jobs", "a file in the way");
  log.allow(LM_ERROR, "jobs");
  script_.work = [](Job&) {
    ACE_ERROR((LM_INFO, "said anyway\n"));
    return true;
  };
  const Job_Ptr job = make_job();
  run(*job);
  EXPECT_EQ(JOB_STATE_COMPLETED, job->state());
  EXPECT_TRUE(log.expect(LM_WARNING, "no log of this run"));
  EXPECT_TRUE(log.expect(LM_INFO, "said anyway\n"));
}

TEST_F(Job_Logs, callback_drops_lines_before_the_first_run)
{
  const Job_Ptr job = make_job();
  ACE_Log_Record record(LM_INFO, ACE_Time_Value(0), 0);
  record.msg_data("nowhere to go");
  job->log_msg_callback()->log(record);
}
} // namespace kestrel_test

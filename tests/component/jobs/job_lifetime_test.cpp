#include "unit/jobs/job_fixture.h"

#include "base/uuid.h"
#include "jobs/job_mutex.h"
#include "support/paths.h"

#include <ace/Guard_T.h>

#include <chrono>
#include <cstdlib>
#include <pthread.h>
#include <set>
#include <sstream>
#include <thread>

namespace kestrel_test
{
namespace
{
/// Counts the job objects that exist.
class Counted_Job : public Controllable_Job_T<Scripted_Executor>
{
public:
  explicit Counted_Job(Job_Definition_Ptr def) : Controllable_Job_T(def) { ++alive; }
  ~Counted_Job() override { --alive; }
  static std::atomic<int> alive;
};

std::atomic<int> Counted_Job::alive(0);

Job_Ptr make_counted_job()
{
  kestrel::Job_Definition_Fields fields = plain_fields();
  fields.id = kestrel::make_uuid();
  return Job_Ptr(new Counted_Job(make_definition(std::move(fields))), false);
}

void nap(int msec)
{
  std::this_thread::sleep_for(std::chrono::milliseconds(msec));
}
} // namespace

class Job_Lifetime : public Job_Test
{
protected:
  ~Job_Lifetime() override
  {
    EXPECT_TRUE(Job::wait_all_runs(60000));
    EXPECT_EQ(0, Counted_Job::alive);
  }

  Fake_Clock clock_; // start times are waited for in its time
  Recorder recorder_;
};

TEST_F(Job_Lifetime, a_job_that_everyone_let_go_of_lives_until_its_run_has_ended)
{
  Gate go_on;
  script_.work = [&](Job& job) {
    go_on.wait();
    return job.definition().name() == "nightly";
  };
  Job_Ptr job = make_counted_job();
  ASSERT_EQ(0, job->start());
  job.reset();
  EXPECT_EQ(1, Counted_Job::alive);
  EXPECT_EQ(1u, Job::active_runs());
  EXPECT_FALSE(Job::wait_all_runs(20));
  go_on.open();
  EXPECT_TRUE(Job::wait_all_runs(30000));
  EXPECT_EQ(0, Counted_Job::alive);
  EXPECT_EQ("end completed", recorder_.lines().back());
}

TEST_F(Job_Lifetime, an_unload_waits_for_the_thread_and_not_only_for_the_end_of_the_run)
{
  std::atomic<bool> thread_over(false);
  class Slow_Thread_Job : public Counted_Job
  {
  public:
    Slow_Thread_Job(Job_Definition_Ptr def, std::atomic<bool>& over) : Counted_Job(def), over_(over) {}
    void* run_i(const Opts* opts) override
    {
      std::atomic<bool>& over = over_;
      Counted_Job::run_i(opts);
      nap(50); // code of the module that runs after the end of the run
      over = true;
      return nullptr;
    }

  private:
    std::atomic<bool>& over_;
  };
  {
    const Job_Ptr job(new Slow_Thread_Job(make_definition(), thread_over), false);
    ASSERT_EQ(0, job->start());
    ASSERT_TRUE(job->wait_end(30000));
  }
  EXPECT_TRUE(Job::wait_all_runs(30000));
  EXPECT_TRUE(thread_over);
}

TEST_F(Job_Lifetime, an_unload_waits_for_what_libraries_destroy_at_the_end_of_the_thread)
{
  static std::atomic<bool> destroyed;
  destroyed = false;
  pthread_key_t key;
  ASSERT_EQ(0, ::pthread_key_create(&key, [](void*) {
              nap(50);
              destroyed = true;
            }));
  script_.work = [&](Job&) { return ::pthread_setspecific(key, &key) == 0; };
  {
    const Job_Ptr job = make_counted_job();
    ASSERT_EQ(0, job->start());
    ASSERT_TRUE(job->wait_end(30000));
  }
  EXPECT_TRUE(Job::wait_all_runs(30000));
  EXPECT_TRUE(destroyed);
  EXPECT_EQ(0, ::pthread_key_delete(key));
}

TEST_F(Job_Lifetime, a_start_that_fails_leaves_nothing_behind)
{
  class Unstartable : public Counted_Job
  {
  public:
    using Counted_Job::Counted_Job;
    int start_i(const Opts*) override { return -1; }
  };
  const Job_Ptr job(new Unstartable(make_definition()), false);
  EXPECT_EQ(-1, job->start());
  EXPECT_FALSE(job->running());
  EXPECT_EQ(0u, Job::active_runs());
  EXPECT_EQ(JOB_STATE_ERROR, job->state());
}

TEST_F(Job_Lifetime, a_job_may_run_whole_on_the_thread_that_starts_it)
{
  class Inline_Job : public Counted_Job
  {
  public:
    using Counted_Job::Counted_Job;
    int start_i(const Opts* opts) override
    {
      run_i(opts);
      return 0;
    }
  };
  {
    const Job_Ptr job(new Inline_Job(make_definition()), false);
    EXPECT_EQ(0, job->start());
    EXPECT_FALSE(job->running());
    EXPECT_EQ(JOB_STATE_COMPLETED, job->state());
  }
  EXPECT_EQ(0u, Job::active_runs());
  EXPECT_EQ(0, Counted_Job::alive);
}

TEST_F(Job_Lifetime, many_jobs_run_side_by_side_and_each_ends_once)
{
  const unsigned count = 60;
  script_.work = [](Job& job) {
    for (int percent = 1; percent <= 20; ++percent) {
      Job_Event_Handler(job).handle_progress(percent, 20, percent);
    }
    return true;
  };
  std::vector<Job_Ptr> jobs;
  for (unsigned i = 0; i < count; ++i) {
    jobs.push_back(make_counted_job());
    ASSERT_EQ(0, jobs.back()->start());
  }
  std::set<time_t> start_times;
  for (const Job_Ptr& job : jobs) {
    ASSERT_TRUE(job->wait_end(60000));
    EXPECT_EQ(JOB_STATE_COMPLETED, job->state());
    start_times.insert(job->activity()->start_time);
  }
  EXPECT_EQ(count, start_times.size());
  std::map<std::string, unsigned> seen;
  for (const std::string& line : recorder_.lines()) {
    ++seen[line];
  }
  EXPECT_EQ(count, seen["start"]);
  EXPECT_EQ(count, seen["progress 20 20 20 0"]);
  EXPECT_EQ(count, seen["end completed"]);
}

TEST_F(Job_Lifetime, requests_race_with_the_end_of_the_run)
{
  script_.work = [](Job& job) {
    for (int i = 0; i < 200 && job.activity()->state == JOB_STATE_RUNNING; ++i) {
      std::this_thread::yield();
    }
    return job.activity()->state == JOB_STATE_RUNNING;
  };
  for (int round = 0; round < 40; ++round) {
    Job_Ptr job = make_counted_job();
    std::atomic<bool> over(false);
    std::vector<std::thread> callers;
    for (int kind = 0; kind < 3; ++kind) {
      callers.emplace_back([&over, kind, job] {
        while (!over) {
          const int result = kind == 0 ? job->stop() : kind == 1 ? job->abort(nullptr) : job->start();
          kestrel::ignore_result(result, "any order may win");
          std::this_thread::yield();
        }
      });
    }
    for (int i = 0; i < 5; ++i) {
      kestrel::ignore_result(job->start(), "another caller may have been first");
      nap(1);
    }
    over = true;
    for (std::thread& caller : callers) {
      caller.join();
    }
    ASSERT_TRUE(job->wait_end(30000));
    const Job_State state = job->state();
    EXPECT_TRUE(state == JOB_STATE_COMPLETED || state == JOB_STATE_CANCELED)
        << kestrel::job_state_text(state);
  }
  // Between a start and the next one there is exactly one end, and every state is told before it.
  EXPECT_EQ(0u, recorder_.lines().back().find("end "));
}

TEST_F(Job_Lifetime, jobs_are_let_go_of_at_any_moment_of_their_run)
{
  script_.work = [](Job&) {
    std::this_thread::yield();
    return true;
  };
  for (int round = 0; round < 200; ++round) {
    Job_Ptr job = make_counted_job();
    ASSERT_EQ(0, job->start());
    if (round % 3 == 0) {
      ASSERT_TRUE(job->wait_end(30000));
    } else if (round % 3 == 1) {
      kestrel::ignore_result(job->stop(), "the run may be over");
    }
    if (round % 5 == 0) {
      EXPECT_EQ(0, job->rollback());
    }
  }
  EXPECT_TRUE(Job::wait_all_runs(60000));
  EXPECT_EQ(0, Counted_Job::alive);
}

TEST_F(Job_Lifetime, two_jobs_on_one_source_never_work_at_the_same_time)
{
  std::atomic<int> inside(0);
  script_.work = [&](Job&) {
    ACE_Guard<ACE_Thread_Mutex> guard(*Job_Mutex::get("source"));
    EXPECT_EQ(1, ++inside);
    nap(2);
    --inside;
    return true;
  };
  std::vector<Job_Ptr> jobs;
  for (int i = 0; i < 10; ++i) {
    jobs.push_back(make_counted_job());
    ASSERT_EQ(0, jobs.back()->start());
  }
  for (const Job_Ptr& job : jobs) {
    ASSERT_TRUE(job->wait_end(60000));
  }
}

TEST(Start_Time_Process, start_times_are_unique_among_processes)
{
  const Temp_Dir root;
  const Scoped_Env env("KESTREL_ROOT", root.path());
  const std::string command =
      "for i in 1 2 3; do '" + bin_dir() + "/start_time_child' 50 >" + (root / "$i") + " & done; wait";
  ASSERT_EQ(0, std::system(command.c_str()));
  std::set<long> seen;
  for (const char* const file : {"1", "2", "3"}) {
    std::istringstream lines(read_file(root / file));
    for (long stamp; lines >> stamp;) {
      EXPECT_TRUE(seen.insert(stamp).second) << stamp;
    }
  }
  EXPECT_EQ(150u, seen.size());
}
} // namespace kestrel_test

#include "unit/jobs/job_fixture.h"

#include "base/uuid.h"
#include "support/no_memory.h"

#include <cerrno>
#include <stdexcept>
#include <thread>

namespace kestrel_test
{
class Job_Lifecycle : public Job_Test
{
protected:
  Fake_Clock clock_;
  Recorder recorder_;
};

TEST_F(Job_Lifecycle, reports_start_and_success_of_a_run)
{
  const Job_Ptr job = make_job();
  run(*job);
  EXPECT_EQ(JOB_STATE_COMPLETED, job->state());
  EXPECT_EQ(1u, script_.works);
  EXPECT_EQ(0, job->activity()->pid);
  EXPECT_EQ((Lines{"start", "outcome completed", "end completed"}), recorder_.lines());
}

TEST_F(Job_Lifecycle, records_times_user_and_a_new_uuid_for_each_run)
{
  const Job_Ptr job = make_job();
  run(*job);
  EXPECT_EQ(USER_ID, uuid_binary_to_string(job->activity()->uid));
  const std::string first = uuid_binary_to_string(job->activity()->uuid);
  const time_t first_start = job->activity()->start_time;
  EXPECT_LE(1700000000, first_start);
  EXPECT_EQ(first_start, job->activity()->last_run_time);
  EXPECT_LE(first_start, job->activity()->end_time);
  run(*job);
  EXPECT_NE(first, uuid_binary_to_string(job->activity()->uuid));
  EXPECT_LT(first_start, job->activity()->start_time);
}

TEST_F(Job_Lifecycle, ends_without_any_event_of_the_work_when_there_is_no_source)
{
  Log_Capture log;
  kestrel::Job_Definition_Fields fields = plain_fields();
  fields.source = ACE_Refcounted_Auto_Ptr<Job_Source, ACE_Thread_Mutex>();
  const Job_Ptr job = make_job(std::move(fields));
  run(*job);
  EXPECT_TRUE(log.expect(LM_EMERGENCY, "src_ is NULL:\n"));
  EXPECT_EQ(0u, script_.works);
  EXPECT_EQ((Lines{"end error"}), recorder_.lines());
}

TEST_F(Job_Lifecycle, treats_a_source_of_another_kind_as_none)
{
  struct Other_Source : Plain_Options, Job_Source {
    int generate(yajl_gen_t*) const override { return 0; }
  };
  Log_Capture log;
  kestrel::Job_Definition_Fields fields = plain_fields();
  fields.source = ACE_Refcounted_Auto_Ptr<Job_Source, ACE_Thread_Mutex>(new Other_Source);
  run(*make_job(std::move(fields)));
  EXPECT_TRUE(log.expect(LM_EMERGENCY, "src_ is NULL:\n"));
}

TEST_F(Job_Lifecycle, reports_the_code_of_a_refused_password_and_runs_nothing)
{
  kestrel::Job_Definition_Fields fields = plain_fields();
  fields.backup_protection_password = "secret";
  script_.password_code = 5;
  const Job_Ptr job = make_job(std::move(fields));
  run(*job);
  EXPECT_EQ(JOB_STATE_ERROR, job->state());
  EXPECT_EQ(0u, script_.works);
  EXPECT_EQ((Lines{"outcome error 5 \"\"", "end error"}), recorder_.lines());
}

TEST_F(Job_Lifecycle, does_not_check_a_password_that_is_not_set)
{
  script_.password_code = 5;
  const Job_Ptr job = make_job();
  run(*job);
  EXPECT_EQ(JOB_STATE_COMPLETED, job->state());
}

TEST_F(Job_Lifecycle, is_skipped_when_it_is_not_active_here)
{
  script_.active = [](Job&) { return false; };
  const Job_Ptr job = make_job();
  run(*job);
  EXPECT_EQ(JOB_STATE_SKIPPED, job->state());
  EXPECT_EQ(1700000000, job->activity()->last_run_time);
  EXPECT_EQ(0, job->activity()->start_time);
  EXPECT_EQ(0u, script_.works);
  EXPECT_EQ((Lines{"end skipped"}), recorder_.lines());
}

TEST_F(Job_Lifecycle, is_idle_again_when_its_condition_does_not_hold)
{
  script_.condition = false;
  const Job_Ptr job = make_job();
  run(*job);
  EXPECT_EQ(JOB_STATE_IDLE, job->state());
  EXPECT_EQ(1700000000, job->activity()->start_time);
  EXPECT_EQ(1700000000, job->activity()->last_run_time);
  EXPECT_EQ(0u, script_.works);
  EXPECT_EQ((Lines{"state idle", "end idle"}), recorder_.lines());
}

TEST_F(Job_Lifecycle, does_not_work_after_a_failed_pre_action)
{
  script_.pre_action = [] { return false; };
  const Job_Ptr job = make_job();
  run(*job);
  EXPECT_EQ(JOB_STATE_ERROR, job->state());
  EXPECT_EQ(0u, script_.works);
  EXPECT_EQ(0u, script_.post_actions);
  EXPECT_EQ((Lines{"start", "outcome error -1 \"\"", "end error"}), recorder_.lines());
}

TEST_F(Job_Lifecycle, runs_the_post_action_always_when_told_so)
{
  kestrel::Job_Definition_Fields fields = plain_fields();
  fields.run_post_action_always = true;
  script_.pre_action = [] { return false; };
  const Job_Ptr job = make_job(std::move(fields));
  run(*job);
  EXPECT_EQ(1u, script_.post_actions);
  EXPECT_EQ(JOB_STATE_ERROR, job->state());
}

TEST_F(Job_Lifecycle, leaves_the_state_alone_when_the_post_action_is_empty)
{
  run(*make_job());
  EXPECT_EQ(1u, script_.post_actions);
  EXPECT_EQ((Lines{"start", "outcome completed", "end completed"}), recorder_.lines());
}

TEST_F(Job_Lifecycle, reports_failed_work)
{
  script_.work = [](Job&) { return false; };
  const Job_Ptr job = make_job();
  run(*job);
  EXPECT_EQ(0u, script_.post_actions);
  EXPECT_EQ((Lines{"start", "outcome error -1 \"\"", "end error"}), recorder_.lines());
}

TEST_F(Job_Lifecycle, hands_a_copy_of_the_options_to_the_run_and_null_for_none)
{
  Gate started;
  script_.work = [&](Job&) { return started.wait(), true; };
  const Job_Ptr job = make_job();
  Job::Opts opts;
  opts["level"] = json_spirit::Value("full");
  ASSERT_EQ(0, job->start(&opts));
  opts.clear();
  started.open();
  ASSERT_TRUE(job->wait_end(30000));
  EXPECT_TRUE(script_.got_options);
  EXPECT_EQ("full", script_.options["level"].get_str());
  const Job::Opts none;
  run(*job, &none);
  EXPECT_FALSE(script_.got_options);
}

TEST_F(Job_Lifecycle, without_memory_for_its_options_a_run_does_not_start)
{
  Log_Capture log;
  const Job_Ptr job = make_job();
  Job::Opts opts;
  opts["level"] = json_spirit::Value("full");
  {
    const No_Memory none;
    EXPECT_EQ(-1, job->start(&opts));
  }
  EXPECT_TRUE(log.expect(LM_ERROR, ", opt is NULL:\n"));
  EXPECT_EQ(1u, log.count("Unexpected error in "));
  EXPECT_EQ(0u, Job::active_runs());
  EXPECT_EQ(0u, script_.works);
  run(*job);
  EXPECT_EQ(1u, script_.works) << "the next start finds a job like any other";
}

TEST_F(Job_Lifecycle, survives_an_exception_of_an_executor)
{
  Log_Capture log;
  script_.constructing = [] { throw std::runtime_error("no way"); };
  const Job_Ptr job = make_job();
  run(*job);
  EXPECT_TRUE(log.expect(LM_ERROR, "the job ended by an exception: no way"));
  EXPECT_EQ(JOB_STATE_ERROR, job->state());
  EXPECT_EQ((Lines{"outcome error -1 \"\"", "end error"}), recorder_.lines());
  script_.constructing = [] {};
  run(*job);
  EXPECT_EQ(JOB_STATE_COMPLETED, job->state());
}

/// A request that arrives while the work runs; the work polls the state as executors do and then gives up.
class Job_Request : public Job_Lifecycle
{
protected:
  void request(const std::function<int(Job&)>& send)
  {
    Gate working;
    script_.work = [&](Job& job) {
      working.open();
      while (job.activity()->state == JOB_STATE_RUNNING) {
        std::this_thread::yield();
      }
      return false;
    };
    job_ = make_job();
    ASSERT_EQ(0, job_->start());
    working.wait();
    ASSERT_EQ(0, send(*job_));
    ASSERT_TRUE(job_->wait_end(30000));
  }

  Job_Ptr job_;
};

TEST_F(Job_Request, stop_ends_as_canceled)
{
  request([](Job& job) { return job.stop(); });
  EXPECT_EQ((Lines{"start", "state canceling", "outcome canceled", "end canceled"}), recorder_.lines());
}

TEST_F(Job_Request, pause_ends_as_paused)
{
  request([](Job& job) { return job.pause(); });
  EXPECT_EQ((Lines{"start", "state pausing", "outcome paused", "end paused"}), recorder_.lines());
}

TEST_F(Job_Request, switch_ends_as_failure)
{
  request([](Job& job) { return job.switch_(); });
  EXPECT_EQ((Lines{"start", "state switching", "outcome error -1 \"\"", "end error"}), recorder_.lines());
}

TEST_F(Job_Request, abort_ends_as_failure)
{
  request([](Job& job) { return job.abort(); });
  EXPECT_EQ((Lines{"start", "state aborting", "outcome error -1 \"\"", "end error"}), recorder_.lines());
}

TEST_F(Job_Request, abort_with_options_ends_as_canceled)
{
  request([](Job& job) { return job.abort(nullptr); });
  EXPECT_EQ((Lines{"start", "state canceling", "outcome canceled", "end canceled"}), recorder_.lines());
}

TEST_F(Job_Request, resume_takes_a_pause_back)
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
  EXPECT_EQ(0, job->pause());
  EXPECT_EQ(0, job->resume());
  EXPECT_EQ(JOB_STATE_RUNNING, job->state());
  go_on.open();
  ASSERT_TRUE(job->wait_end(30000));
  EXPECT_EQ(JOB_STATE_COMPLETED, job->state());
}

TEST_F(Job_Request, stop_before_the_start_of_the_work_is_not_lost)
{
  Gate asked, stopped;
  script_.active = [&](Job&) {
    asked.open();
    stopped.wait();
    return true;
  };
  const Job_Ptr job = make_job();
  ASSERT_EQ(0, job->start());
  asked.wait();
  EXPECT_EQ(0, job->stop());
  stopped.open();
  ASSERT_TRUE(job->wait_end(30000));
  EXPECT_EQ(0u, script_.works);
  EXPECT_EQ((Lines{"state canceling", "start", "outcome canceled", "end canceled"}), recorder_.lines());
}

TEST_F(Job_Request, stop_that_the_work_did_not_notice_ends_as_success)
{
  script_.work = [](Job& job) { return job.stop() == 0; };
  const Job_Ptr job = make_job();
  run(*job);
  EXPECT_EQ((Lines{"start", "state canceling", "outcome completed", "end completed"}), recorder_.lines());
}

TEST_F(Job_Request, stop_after_the_result_does_not_replace_it)
{
  Gate settled, refused;
  class Late : public Controllable_Job_T<Scripted_Executor>
  {
  public:
    Late(Job_Definition_Ptr def, Gate& settled, Gate& refused)
        : Controllable_Job_T(def), settled_(settled), refused_(refused)
    {
    }
    void* run_i(const Opts*) override
    {
      Job_Event_Handler handler(*this);
      handler.handle_start_job();
      handler.handle_success();
      settled_.open();
      refused_.wait();
      kestrel::ignore_result(complete(), "the test looks at the state");
      return nullptr;
    }

  private:
    Gate& settled_;
    Gate& refused_;
  };
  const Job_Ptr job(new Late(make_definition(), settled, refused), false);
  ASSERT_EQ(0, job->start());
  settled.wait();
  EXPECT_EQ(-1, job->stop());
  EXPECT_EQ(ESRCH, errno);
  refused.open();
  ASSERT_TRUE(job->wait_end(30000));
  EXPECT_EQ(JOB_STATE_COMPLETED, job->state());
}

TEST_F(Job_Request, requests_without_a_run_are_refused)
{
  const Job_Ptr job = make_job();
  for (int round = 0; round < 2; ++round) {
    EXPECT_EQ(-1, job->stop());
    EXPECT_EQ(-1, job->pause());
    EXPECT_EQ(-1, job->resume());
    EXPECT_EQ(-1, job->abort());
    EXPECT_EQ(-1, job->abort(nullptr));
    EXPECT_EQ(-1, job->switch_());
    EXPECT_EQ(ESRCH, errno);
    run(*job);
    EXPECT_EQ(JOB_STATE_COMPLETED, job->state());
  }
}

TEST_F(Job_Request, a_second_start_is_refused_while_the_first_runs)
{
  Gate go_on;
  script_.work = [&](Job&) { return go_on.wait(), true; };
  const Job_Ptr job = make_job();
  ASSERT_EQ(0, job->start());
  EXPECT_EQ(-1, job->start());
  EXPECT_EQ(EBUSY, errno);
  EXPECT_EQ(-1, job->remove());
  EXPECT_EQ(-1, job->update(make_definition()));
  EXPECT_EQ(EBUSY, errno);
  EXPECT_FALSE(job->wait_end(0));
  go_on.open();
  ASSERT_TRUE(job->wait_end(30000));
}

TEST_F(Job_Request, a_bare_default_job_cannot_be_stopped_or_resumed)
{
  Gate working, go_on;
  script_.work = [&](Job&) {
    working.open();
    go_on.wait();
    return true;
  };
  const Job_Ptr job(new Default_Job_T<Scripted_Executor>(make_definition()), false);
  ASSERT_EQ(0, job->start());
  working.wait();
  EXPECT_EQ(-1, job->stop());
  EXPECT_EQ(-1, job->resume());
  EXPECT_EQ(-1, job->pause());
  EXPECT_EQ(-1, job->switch_());
  EXPECT_EQ(-1, job->abort());
  EXPECT_EQ(JOB_STATE_RUNNING, job->state());
  EXPECT_EQ(0, job->abort(nullptr));
  EXPECT_EQ(JOB_STATE_CANCELING, job->state());
  go_on.open();
  ASSERT_TRUE(job->wait_end(30000));
}

TEST_F(Job_Lifecycle, a_disabled_job_does_not_start)
{
  const Job_Ptr job = make_job();
  ASSERT_EQ(0, job->disable());
  EXPECT_EQ(-1, job->start());
  EXPECT_EQ(EPERM, errno);
  ASSERT_EQ(0, job->enable());
  run(*job);
  EXPECT_EQ(JOB_STATE_COMPLETED, job->state());
}

TEST_F(Job_Lifecycle, removal_asks_once_for_each_ondemand_schedule_and_once_for_the_job)
{
  script_.results = false;
  kestrel::Job_Definition_Fields fields = plain_fields();
  for (const int type : {7, 1, 7, 2}) {
    fields.schedules.push_back(Job_Schedule_Ptr(new Job_Schedule(type)));
  }
  const Job_Ptr job = make_job(std::move(fields));
  const std::string record = Job_Activity_Path_Conf::path(DEFINITION_ID);
  EXPECT_TRUE(exists(record));
  EXPECT_EQ(0, job->remove());
  EXPECT_EQ(2u, script_.remove_ondemands);
  EXPECT_EQ(1u, script_.removes);
  EXPECT_FALSE(exists(record));
}

TEST_F(Job_Lifecycle, an_update_replaces_the_definition)
{
  script_.results = false;
  const Job_Ptr job = make_job();
  kestrel::Job_Definition_Fields fields = plain_fields();
  fields.name = "hourly";
  EXPECT_EQ(0, job->update(make_definition(fields)));
  EXPECT_EQ(1u, script_.updates);
  EXPECT_EQ("hourly", job->definition().name());
  fields.id = USER_ID;
  EXPECT_EQ(-1, job->update(make_definition(fields)));
  EXPECT_EQ(EINVAL, errno);
}

TEST_F(Job_Lifecycle, ondemand_setup_gives_the_result_of_the_executor)
{
  const Job_Ptr job = make_job();
  EXPECT_EQ(0, job->setup_ondemand());
  EXPECT_EQ(0, job->setup_ondemand_by_job(nullptr));
  script_.results = false;
  EXPECT_EQ(-1, job->setup_ondemand());
  EXPECT_EQ(3u, script_.setups);
}

TEST_F(Job_Lifecycle, a_rollback_keeps_the_job_until_its_thread_has_ended)
{
  Job_Ptr job = make_job();
  Gate released;
  script_.constructing = [&] { released.wait(); };
  EXPECT_EQ(0, job->rollback());
  EXPECT_LE(1u, Job::active_runs());
  job.reset();
  released.open();
  EXPECT_TRUE(Job::wait_all_runs(30000));
  EXPECT_EQ(1u, script_.rollbacks);
}

TEST_F(Job_Lifecycle, a_rollback_keeps_its_definition_while_the_job_gets_another)
{
  Gate rolling, updated;
  std::string name;
  script_.rolling_back = [&](const Job_Definition& def) {
    rolling.open();
    updated.wait();
    name = def.name();
  };
  const Job_Ptr job = make_job();
  ASSERT_EQ(0, job->rollback());
  rolling.wait();
  kestrel::Job_Definition_Fields fields = plain_fields();
  fields.name = "hourly";
  EXPECT_EQ(0, job->update(make_definition(fields)));
  updated.open();
  EXPECT_TRUE(Job::wait_all_runs(30000));
  EXPECT_EQ("nightly", name);
}
} // namespace kestrel_test

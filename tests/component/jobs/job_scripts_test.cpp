#include "support/waiting.h"
#include "unit/jobs/job_fixture.h"

#include <csignal>
#include <unistd.h>

namespace kestrel_test
{
/// The user's scripts around a run, with a real shell.
class Job_Scripts : public Job_Test
{
protected:
  Job_State run_with(const std::function<void(kestrel::Job_Definition_Fields&)>& change)
  {
    kestrel::Job_Definition_Fields fields = plain_fields();
    change(fields);
    job_ = make_job(std::move(fields));
    run(*job_);
    return job_->state();
  }
  /// A script that leaves a trace.
  std::string mark(const std::string& name) { return "echo " + name + " >> " + (root_ / "marks"); }
  std::string marks() { return exists(root_ / "marks") ? read_file(root_ / "marks") : std::string(); }

  Log_Capture log_;
  Fake_Clock clock_;
  Recorder recorder_;
  Job_Ptr job_;
};

TEST_F(Job_Scripts, run_in_their_order_around_the_work)
{
  script_.work = [this](Job&) { return root_.write("work_saw", marks()), true; };
  EXPECT_EQ(JOB_STATE_COMPLETED, run_with([this](kestrel::Job_Definition_Fields& fields) {
              fields.precondition = mark("precondition");
              fields.pre_action = mark("pre");
              fields.post_action = mark("post");
            }));
  EXPECT_EQ("precondition\npre\n", read_file(root_ / "work_saw"));
  EXPECT_EQ("precondition\npre\npost\n", marks());
  EXPECT_EQ((Lines{"start", "state completing", "outcome completed", "end completed"}), recorder_.lines());
}

TEST_F(Job_Scripts, a_false_precondition_leaves_the_job_idle)
{
  EXPECT_EQ(JOB_STATE_IDLE, run_with([this](kestrel::Job_Definition_Fields& fields) {
              fields.precondition = "echo not today; exit 1";
              fields.pre_action = mark("pre");
            }));
  EXPECT_EQ("", marks());
  EXPECT_EQ(job_->activity()->start_time, job_->activity()->last_run_time);
  EXPECT_EQ((Lines{"state idle", "end idle"}), recorder_.lines());
  EXPECT_EQ(std::string::npos, read_file(job_->log_path()).find("not today"));
  EXPECT_FALSE(log_.contains("not today"));
}

TEST_F(Job_Scripts, output_of_the_actions_goes_to_the_log_of_the_job)
{
  EXPECT_EQ(JOB_STATE_COMPLETED, run_with([](kestrel::Job_Definition_Fields& fields) {
              fields.pre_action = "echo before the work";
              fields.post_action = "echo after the work";
            }));
  const std::string text = read_file(job_->log_path());
  EXPECT_NE(std::string::npos, text.find("before the work"));
  EXPECT_NE(std::string::npos, text.find("after the work"));
}

TEST_F(Job_Scripts, a_failing_pre_action_skips_the_work_and_the_post_action)
{
  EXPECT_EQ(JOB_STATE_ERROR, run_with([this](kestrel::Job_Definition_Fields& fields) {
              fields.pre_action = "exit 3";
              fields.post_action = mark("post");
            }));
  EXPECT_EQ(0u, script_.works);
  EXPECT_EQ("", marks());
  EXPECT_TRUE(log_.expect_exactly(LM_ERROR, "The pre_action of the job's definition failed\n"));
  EXPECT_NE(std::string::npos,
            read_file(job_->log_path()).find("The pre_action of the job's definition failed"));
}

TEST_F(Job_Scripts, a_failing_pre_action_can_be_ignored)
{
  EXPECT_EQ(JOB_STATE_COMPLETED, run_with([](kestrel::Job_Definition_Fields& fields) {
              fields.pre_action = "exit 3";
              fields.ignore_pre_action_failure = true;
            }));
  EXPECT_EQ(1u, script_.works);
  EXPECT_TRUE(log_.expect_exactly(
      LM_WARNING, "The pre_action of the job's definition failed, which the definition ignores\n"));
}

TEST_F(Job_Scripts, a_failing_post_action_fails_the_job_unless_it_is_ignored)
{
  EXPECT_EQ(JOB_STATE_ERROR,
            run_with([](kestrel::Job_Definition_Fields& fields) { fields.post_action = "exit 3"; }));
  EXPECT_TRUE(log_.expect_exactly(LM_ERROR, "The post_action of the job's definition failed\n"));
  job_ = Job_Ptr();
  ASSERT_TRUE(Job::wait_all_runs(30000));
  EXPECT_EQ(JOB_STATE_COMPLETED, run_with([](kestrel::Job_Definition_Fields& fields) {
              fields.post_action = "exit 3";
              fields.ignore_post_action_failure = true;
            }));
  EXPECT_TRUE(log_.expect_exactly(
      LM_WARNING, "The post_action of the job's definition failed, which the definition ignores\n"));
}

TEST_F(Job_Scripts, the_post_action_runs_always_when_told_so_and_the_result_stays_a_failure)
{
  script_.work = [](Job&) { return false; };
  EXPECT_EQ(JOB_STATE_ERROR, run_with([this](kestrel::Job_Definition_Fields& fields) {
              fields.post_action = mark("post");
              fields.run_post_action_always = true;
            }));
  EXPECT_EQ("post\n", marks());
}

TEST_F(Job_Scripts, that_hang_are_ended_once_their_job_is_canceled)
{
  const std::string hanging = "echo $$ >" + (root_ / "shell") + "; exec 2>/dev/null; sleep 600 & wait";
  const struct {
    const char* name;
    std::string kestrel::Job_Definition_Fields::*script;
    Job_State end;
  } cases[] = {{"precondition", &kestrel::Job_Definition_Fields::precondition, JOB_STATE_IDLE},
               {"pre-action", &kestrel::Job_Definition_Fields::pre_action, JOB_STATE_CANCELED},
               {"post-action", &kestrel::Job_Definition_Fields::post_action, JOB_STATE_CANCELED}};
  for (const auto& each : cases) {
    SCOPED_TRACE(each.name);
    kestrel::Job_Definition_Fields fields = plain_fields();
    fields.*each.script = hanging;
    job_ = make_job(std::move(fields));
    ASSERT_EQ(0, job_->start());
    ASSERT_TRUE(
        eventually([this] { return exists(root_ / "shell") && !read_file(root_ / "shell").empty(); }));
    clock_.advance_msec(3600 * 1000);
    EXPECT_FALSE(job_->wait_end(300)) << "nobody has canceled it yet";
    EXPECT_EQ(0, job_->stop());
    ASSERT_TRUE(eventually([this] {
      clock_.advance_msec(1000);
      return !job_->running();
    }));
    EXPECT_EQ(each.end, job_->state()) << kestrel::job_state_text(job_->state());
    EXPECT_TRUE(log_.expect(LM_WARNING, "but script has been silent for "));
    EXPECT_TRUE(log_.expect(LM_WARNING, "script has been terminated"));
    const pid_t shell = std::stoi(read_file(root_ / "shell"));
    EXPECT_TRUE(eventually([shell] { return ::kill(-shell, 0) != 0; })) << "its children went along";
    ASSERT_EQ(0, ::unlink((root_ / "shell").c_str()));
    job_ = Job_Ptr();
    ASSERT_TRUE(Job::wait_all_runs(30000));
  }
}

TEST_F(Job_Scripts, a_request_during_the_pre_action_keeps_the_work_from_beginning)
{
  struct Case {
    const char* name;
    std::function<int(Job&)> request;
    Job_State end;
  };
  const Case cases[] = {{"stop", [](Job& job) { return job.stop(); }, JOB_STATE_CANCELED},
                        {"pause", [](Job& job) { return job.pause(); }, JOB_STATE_PAUSED},
                        {"abort", [](Job& job) { return job.abort(); }, JOB_STATE_ERROR}};
  for (const Case& c : cases) {
    const std::string begun = root_ / (std::string(c.name) + "_begun");
    const std::string go = root_ / (std::string(c.name) + "_go");
    kestrel::Job_Definition_Fields fields = plain_fields();
    // It succeeds, whatever was asked meanwhile.
    fields.pre_action = "touch " + begun + "; while [ ! -e " + go + " ]; do sleep 0.01; done";
    fields.post_action = mark("post");
    const Job_Ptr job = make_job(std::move(fields));
    ASSERT_EQ(0, job->start());
    ASSERT_TRUE(wait_for_file(begun)) << c.name;
    EXPECT_EQ(0, c.request(*job)) << c.name;
    root_.write(std::string(c.name) + "_go", "");
    ASSERT_TRUE(job->wait_end(30000)) << c.name;
    EXPECT_EQ(c.end, job->state()) << c.name;
  }
  EXPECT_EQ(0u, script_.works);
  EXPECT_EQ("", marks());
}

TEST_F(Job_Scripts, a_cancel_before_a_post_action_that_always_runs_is_reported_as_failure)
{
  script_.work = [](Job& job) { return job.stop() != 0; };
  EXPECT_EQ(JOB_STATE_ERROR, run_with([this](kestrel::Job_Definition_Fields& fields) {
              fields.post_action = mark("post");
              fields.run_post_action_always = true;
            }));
  EXPECT_EQ((Lines{"start", "state canceling", "state completing", "outcome error -1 \"\"", "end error"}),
            recorder_.lines());
}

TEST_F(Job_Scripts, a_cancel_without_a_post_action_stays_a_cancel)
{
  script_.work = [](Job& job) { return job.stop() != 0; };
  EXPECT_EQ(JOB_STATE_CANCELED,
            run_with([](kestrel::Job_Definition_Fields& fields) { fields.run_post_action_always = true; }));
}
} // namespace kestrel_test

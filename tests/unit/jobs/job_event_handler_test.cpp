#include "unit/jobs/job_fixture.h"

#include "base/uuid.h"

namespace kestrel_test
{
class Job_Reports : public Job_Test
{
protected:
  Fake_Clock clock_;
  Recorder recorder_;
  Job_Ptr job_ = make_job();
  Job_Event_Handler handler_{*job_};
};

TEST_F(Job_Reports, start_sets_running_only_in_place_of_the_states_before_the_work)
{
  for (const Job_State before : {JOB_STATE_NONE, JOB_STATE_IDLE, JOB_STATE_STARTING}) {
    job_->activity()->state = before;
    handler_.handle_start_job();
    EXPECT_EQ(JOB_STATE_RUNNING, job_->state());
  }
  for (const Job_State request :
       {JOB_STATE_CANCELING, JOB_STATE_PAUSING, JOB_STATE_ABORTING, JOB_STATE_SWITCHING}) {
    job_->activity()->state = request;
    handler_.handle_start_job();
    EXPECT_EQ(request, job_->state());
  }
}

TEST_F(Job_Reports, start_gives_times_that_no_other_start_has)
{
  time_t last = 0;
  for (int i = 0; i < 5; ++i) {
    job_->activity()->state = JOB_STATE_STARTING;
    handler_.handle_start_job();
    EXPECT_LT(last, job_->activity()->start_time);
    last = job_->activity()->start_time;
    EXPECT_LE(last, clock_.now()); // it has waited until then
  }
}

TEST_F(Job_Reports, failure_tells_its_code_and_text_and_logs_the_text)
{
  Log_Capture log;
  handler_.handle_failure(7, "no %s for %d", "room", 3);
  EXPECT_TRUE(log.expect(LM_ERROR, "failed with code 7: no room for 3\n"));
  EXPECT_EQ((Lines{"outcome error 7 \"no room for 3\""}), recorder_.lines());
  EXPECT_EQ(JOB_STATE_ERROR, job_->state());
}

TEST_F(Job_Reports, failure_does_not_take_a_text_for_a_format_again)
{
  Log_Capture log;
  handler_.handle_failure(7, "%s", "100%s %n");
  EXPECT_TRUE(log.expect(LM_ERROR, "100%s %n"));
}

TEST_F(Job_Reports, each_result_has_its_state_and_an_end_time)
{
  handler_.handle_success();
  EXPECT_EQ(JOB_STATE_COMPLETED, job_->state());
  EXPECT_EQ(clock_.now(), job_->activity()->end_time);
  handler_.handle_paused();
  EXPECT_EQ(JOB_STATE_PAUSED, job_->state());
  handler_.handle_canceled();
  EXPECT_EQ(JOB_STATE_CANCELED, job_->state());
  handler_.handle_failure(-1, nullptr);
  EXPECT_EQ(JOB_STATE_ERROR, job_->state());
}

TEST_F(Job_Reports, only_the_first_result_of_a_run_counts)
{
  script_.work = [](Job& job) {
    Job_Event_Handler(job).handle_failure(9, nullptr);
    return true;
  };
  run(*job_);
  EXPECT_EQ(JOB_STATE_ERROR, job_->state());
  EXPECT_EQ((Lines{"start", "outcome error 9 \"\"", "end error"}), recorder_.lines());
}

TEST_F(Job_Reports, progress_is_recorded_and_told)
{
  EXPECT_EQ(0, handler_.handle_progress(42, 1000, 420));
  EXPECT_EQ(42, job_->activity()->progress);
  EXPECT_EQ(1000u, job_->activity()->progress_total);
  EXPECT_EQ(420u, job_->activity()->progress_done);
  EXPECT_EQ((Lines{"progress 42 1000 420 0"}), recorder_.lines());
}

TEST_F(Job_Reports, a_new_run_begins_with_clean_counters)
{
  EXPECT_EQ(0, handler_.handle_progress(42, 1000, 420));
  job_->activity()->original_size = 5;
  run(*job_);
  EXPECT_EQ(0, job_->activity()->progress);
  EXPECT_EQ(0u, job_->activity()->progress_total);
  EXPECT_EQ(0u, job_->activity()->original_size);
}

TEST_F(Job_Reports, both_shapes_of_an_alert_tell_category_and_code)
{
  EXPECT_EQ(0, write_job_alert(*job_, 7, 14, 0, json_spirit::Value(), 1));
  EXPECT_EQ(0, write_job_alert(*job_, 7, 0, 10, 0, 0, 0, json_spirit::Value("why"), 1, 0));
  EXPECT_EQ((Lines{"alert 7 14", "alert 7 10"}), recorder_.lines());
  const std::vector<kestrel::Job_Alert> alerts = job_->alerts();
  ASSERT_EQ(2u, alerts.size());
  EXPECT_EQ(14, alerts[0].code);
  EXPECT_TRUE(alerts[0].data.is_null());
  EXPECT_EQ(7, alerts[1].category);
  EXPECT_EQ(10, alerts[1].code);
  EXPECT_EQ("why", alerts[1].data.get_str());
  EXPECT_EQ(clock_.now(), alerts[1].time);
}

TEST_F(Job_Reports, alerts_belong_to_one_run_and_do_not_grow_without_end)
{
  for (int i = 0; i < 1200; ++i) {
    EXPECT_EQ(0, write_job_alert(*job_, 7, i, 0, json_spirit::Value(), 1));
  }
  EXPECT_EQ(1000u, job_->alerts().size());
  run(*job_);
  EXPECT_TRUE(job_->alerts().empty());
}

TEST(Job_Words, name_every_state_type_and_level)
{
  EXPECT_STREQ("none", kestrel::job_state_text(JOB_STATE_NONE));
  EXPECT_STREQ("completed with errors", kestrel::job_state_text(JOB_STATE_COMPLETED_WITH_ERRORS));
  EXPECT_STREQ("opening", kestrel::job_state_text(JOB_STATE_OPENING));
  EXPECT_STREQ("aborting", kestrel::job_state_text(JOB_STATE_ABORTING));
  EXPECT_STREQ("unknown", kestrel::job_state_text(static_cast<Job_State>(26)));
  EXPECT_STREQ("unknown", kestrel::job_state_text(static_cast<Job_State>(-1)));
  EXPECT_STREQ("restore", kestrel::job_def_type_to_string(JOB_DEFINITION_RESTORE));
  EXPECT_STREQ("full", job_def_subtype_to_string(JOB_DEFINITION_SUBTYPE_FULL));
  EXPECT_STREQ("incr", job_def_subtype_to_string(JOB_DEFINITION_SUBTYPE_INCREMENTAL));
  EXPECT_STREQ("diff", job_def_subtype_to_string(JOB_DEFINITION_SUBTYPE_CUMULATIVE));
  EXPECT_STREQ("export", job_def_subtype_to_string(JOB_DEFINITION_SUBTYPE_EXPORT));
  EXPECT_STREQ("import", job_def_subtype_to_string(JOB_DEFINITION_SUBTYPE_IMPORT));
  EXPECT_STREQ("none", job_def_subtype_to_string(JOB_DEFINITION_SUBTYPE_NONE));
  EXPECT_STREQ("unknown", job_def_subtype_to_string(static_cast<Job_Definition_Subtype>(35)));
}

TEST(Job_Types, finds_every_state_by_its_word)
{
  for (int number = JOB_STATE_NONE; number <= JOB_STATE_OPENING; ++number) {
    Job_State state = JOB_STATE_NONE;
    ASSERT_TRUE(kestrel::job_state_from_text(kestrel::job_state_text(static_cast<Job_State>(number)), state));
    EXPECT_EQ(number, state);
  }
  Job_State untouched = JOB_STATE_PAUSED;
  EXPECT_FALSE(kestrel::job_state_from_text("unknown", untouched));
  EXPECT_FALSE(kestrel::job_state_from_text("", untouched));
  EXPECT_EQ(JOB_STATE_PAUSED, untouched);
}
} // namespace kestrel_test

#include "unit/jobs/job_fixture.h"

#include "base/uuid.h"
#include "support/fault_file_system.h"

#include <cerrno>
#include <sys/stat.h>
#include <thread>

namespace kestrel_test
{
typedef Mem_Map_Handle<Job_Activity, Job_Activity_Path_Conf, 4096u> Activity_Handle;

class Job_Activity_Record : public Job_Test
{
protected:
  Fake_Clock clock_;
  const std::string file_ =
      root_ / ("var/opt/tarnvik/kestrel3/agent/activity/" + std::string(DEFINITION_ID) + ".activity");
};

TEST_F(Job_Activity_Record, lives_in_a_file_of_4096_bytes_that_others_can_read)
{
  const Job_Ptr job = make_job();
  run(*job);
  struct stat info;
  ASSERT_EQ(0, ::stat(file_.c_str(), &info));
  EXPECT_EQ(4096, info.st_size);
  const std::string bytes = read_file(file_);
  const Job_Activity* const record = reinterpret_cast<const Job_Activity*>(bytes.data());
  EXPECT_EQ(Job_Activity::MAGIC, record->magic);
  EXPECT_EQ(JOB_STATE_COMPLETED, record->state);
}

TEST_F(Job_Activity_Record, keeps_the_last_result_for_the_next_job_object)
{
  time_t start_time = 0;
  {
    const Job_Ptr job = make_job();
    run(*job);
    start_time = job->activity()->start_time;
  }
  ASSERT_TRUE(Job::wait_all_runs(30000));
  const Job_Ptr job = make_job();
  EXPECT_EQ(JOB_STATE_COMPLETED, job->state());
  EXPECT_EQ(start_time, job->activity()->start_time);
}

TEST_F(Job_Activity_Record, shows_a_run_that_died_with_its_process_as_failed)
{
  for (const Job_State state :
       {JOB_STATE_STARTING, JOB_STATE_RUNNING, JOB_STATE_CANCELING, JOB_STATE_COMPLETING}) {
    {
      const Activity_Handle record(DEFINITION_ID);
      record->magic = Job_Activity::MAGIC;
      record->state = state;
      record->pid = 12345;
    }
    const Job_Ptr job = make_job();
    EXPECT_EQ(JOB_STATE_ERROR, job->state());
    EXPECT_EQ(0u, job->activity()->pid);
  }
}

TEST_F(Job_Activity_Record, begins_anew_in_place_of_foreign_bytes)
{
  root_.write("var/opt/tarnvik/kestrel3/agent/activity/" + std::string(DEFINITION_ID) + ".activity",
              std::string(9000, 'x'));
  const Job_Ptr job = make_job();
  EXPECT_EQ(JOB_STATE_NONE, job->state());
  EXPECT_EQ(0, job->activity()->progress);
}

TEST_F(Job_Activity_Record, is_completed_when_the_file_is_too_short)
{
  root_.write("var/opt/tarnvik/kestrel3/agent/activity/" + std::string(DEFINITION_ID) + ".activity", "abc");
  const Job_Ptr job = make_job();
  run(*job);
  EXPECT_EQ(4096u, read_file(file_).size());
}

TEST_F(Job_Activity_Record, stays_in_memory_when_the_disk_is_full)
{
  for (const char* const call : {"open", "fstat", "pwrite"}) {
    Log_Capture log;
    Fault_File_System files;
    files.fail(call, 1, ENOSPC);
    const Job_Ptr job = make_job();
    EXPECT_TRUE(files.met()) << call;
    EXPECT_TRUE(
        log.expect(LM_WARNING, file_ + ": No space left on device; the record is kept in memory only"));
    run(*job);
    EXPECT_EQ(JOB_STATE_COMPLETED, job->state());
    EXPECT_EQ(0, job->sync(nullptr));
    ASSERT_TRUE(Job::wait_all_runs(30000));
  }
}

TEST_F(Job_Activity_Record, stays_in_memory_when_there_is_no_directory_for_it)
{
  Log_Capture log;
  root_.write("var/opt/tarnvik/kestrel3/agent/activity", "a file in the way");
  const Job_Ptr job = make_job();
  log.allow(LM_ERROR, "activity");
  EXPECT_TRUE(log.expect(LM_WARNING, "the record is kept in memory only"));
  run(*job);
  EXPECT_EQ(JOB_STATE_COMPLETED, job->state());
}

TEST_F(Job_Activity_Record, belongs_to_one_job_object_at_a_time)
{
  Log_Capture log;
  const Job_Ptr first = make_job();
  const Job_Ptr second = make_job();
  EXPECT_TRUE(log.expect(LM_NOTICE, "in use by another job or process"));
  run(*first);
  EXPECT_EQ(JOB_STATE_COMPLETED, first->state());
  EXPECT_EQ(JOB_STATE_NONE, second->state());
  EXPECT_EQ(0, second->remove());
  EXPECT_TRUE(exists(file_));
}

TEST_F(Job_Activity_Record, of_an_id_that_is_no_uuid_stays_in_its_directory)
{
  const std::string path = Job_Activity_Path_Conf::path("../../../etc/passwd");
  EXPECT_EQ(std::string::npos, path.find(".."));
  EXPECT_EQ(path, Job_Activity_Path_Conf::path("../../../etc/passwd"));
  EXPECT_NE(path, Job_Activity_Path_Conf::path("other"));
}

TEST_F(Job_Activity_Record, fields_are_shared_between_threads_without_a_lock)
{
  const Job_Ptr job = make_job();
  Job_Activity& act = *job->activity();
  std::thread writer([&act] {
    for (uint64_t i = 1; i <= 20000; ++i) {
      act.processed_size = i << 32 | i; // a torn value would show as unequal halves
      act.state = i % 2 ? JOB_STATE_RUNNING : JOB_STATE_PAUSING;
    }
  });
  uint64_t last = 0;
  while (last < (uint64_t(20000) << 32 | 20000)) {
    last = act.processed_size;
    ASSERT_EQ(last >> 32, last & 0xffffffff);
    const Job_State state = act.state;
    ASSERT_TRUE(state == JOB_STATE_NONE || state == JOB_STATE_RUNNING || state == JOB_STATE_PAUSING);
  }
  writer.join();
}

TEST(Mapped_Value, compares_before_it_exchanges)
{
  kestrel::Mapped_Value<int> value;
  value = 3;
  int expected = 4;
  EXPECT_FALSE(value.compare_exchange(expected, 5));
  EXPECT_EQ(3, expected);
  EXPECT_TRUE(value.compare_exchange(expected, 5));
  EXPECT_EQ(5, value);
}

TEST(Job_Activity_Layout, is_a_file_format_with_aligned_64_bit_values)
{
  EXPECT_EQ(0u, offsetof(Job_Activity, magic));
  EXPECT_EQ(8u, offsetof(Job_Activity, state));
  EXPECT_EQ(16u, offsetof(Job_Activity, uid));
  EXPECT_EQ(48u, offsetof(Job_Activity, start_time));
  EXPECT_EQ(0u, offsetof(Job_Activity, original_size) % 8);
}
} // namespace kestrel_test

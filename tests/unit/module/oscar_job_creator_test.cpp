#include "oscar/oscar_job_creator.h"

#include "job/default_job_t.h"
#include "support/no_memory.h"
#include "oscar/backup_executor.h"
#include "oscar/brcmd_backup_executor.h"
#include "oscar/brcmd_restore_executor.h"
#include "oscar/restore_executor.h"
#include "support/log_capture.h"
#include "support/scoped_env.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <cerrno>

using kestrel_test::Log_Capture;

namespace
{
typedef Controllable_Job_T<oscar::Oscar_Brcmd_Backup_Executor> Physical_Backup;
typedef Controllable_Job_T<oscar::Oscar_Brcmd_Restore_Executor> Physical_Restore;
typedef Controllable_Job_T<oscar::Backup_Executor> Logical_Backup;
typedef Controllable_Job_T<oscar::Restore_Executor> Logical_Restore;

class Oscar_Job_Creator : public testing::Test
{
protected:
  static Job_Definition_Ptr definition(int type, int subtype)
  {
    kestrel::Job_Definition_Fields fields;
    fields.id = "0c9f6d1e-3b52-4f0a-9a57-1d2c3b4a5f60";
    fields.uid = "5d0f3f0e-2f64-4f5c-8a2b-6b7c8d9e0f11";
    fields.type = static_cast<Job_Definition_Type>(type);
    fields.subtype = static_cast<Job_Definition_Subtype>(subtype);
    return Job_Definition_Ptr(new Job_Definition(fields));
  }

  ACE_Intrusive_Auto_Ptr<Job> create(int type, int subtype)
  {
    return oscar::Oscar_Job_Creator().create(definition(type, subtype));
  }

  template <class Kind> void expect_kind(int type, int subtype)
  {
    const ACE_Intrusive_Auto_Ptr<Job> job = create(type, subtype);
    EXPECT_NE(dynamic_cast<Kind*>(job.get()), nullptr) << "type " << type << " subtype " << subtype;
  }

  const kestrel_test::Temp_Dir root_;
  const kestrel_test::Scoped_Env env_{"KESTREL_ROOT", root_.path()};
};
} // namespace

TEST_F(Oscar_Job_Creator, every_backup_subtype_but_export_is_physical)
{
  for (int subtype : {0, 1, 2, 3, 4, 13, 14, 35})
    expect_kind<Physical_Backup>(JOB_DEFINITION_BACKUP, subtype);
}

TEST_F(Oscar_Job_Creator, every_restore_subtype_but_import_is_physical)
{
  for (int subtype : {0, 1, 2, 3, 5, 13, 35})
    expect_kind<Physical_Restore>(JOB_DEFINITION_RESTORE, subtype);
}

TEST_F(Oscar_Job_Creator, export_and_import_are_logical)
{
  expect_kind<Logical_Backup>(JOB_DEFINITION_BACKUP, JOB_DEFINITION_SUBTYPE_EXPORT);
  expect_kind<Logical_Restore>(JOB_DEFINITION_RESTORE, JOB_DEFINITION_SUBTYPE_IMPORT);
}

TEST_F(Oscar_Job_Creator, another_type_gives_no_job_and_leaves_errno)
{
  Log_Capture log;
  for (int type : {0, 3, 4, 99}) {
    errno = EXDEV;
    EXPECT_EQ(create(type, JOB_DEFINITION_SUBTYPE_FULL).get(), nullptr);
    EXPECT_EQ(errno, EXDEV);
  }
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(Oscar_Job_Creator, reports_that_there_is_no_memory)
{
  Log_Capture log;
  const Job_Definition_Ptr def = definition(JOB_DEFINITION_BACKUP, JOB_DEFINITION_SUBTYPE_FULL);
  kestrel_test::No_Memory none;
  errno = 0;
  EXPECT_EQ(oscar::Oscar_Job_Creator().create(def).get(), nullptr);
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(Oscar_Job_Creator, the_result_holds_the_only_reference)
{
  Job_Definition_Ptr def = definition(JOB_DEFINITION_BACKUP, JOB_DEFINITION_SUBTYPE_FULL);
  ACE_Intrusive_Auto_Ptr<Job> job = oscar::Oscar_Job_Creator().create(def);
  EXPECT_EQ(&job->definition(), def.get());
  EXPECT_EQ(def.count(), 1) << "the job has its own reference";
  job.reset(nullptr);
  EXPECT_EQ(def.count(), 0);
}

TEST(Type_To_Cmd_Name, names_the_three_levels)
{
  EXPECT_STREQ(oscar::type_to_cmd_name(JOB_DEFINITION_SUBTYPE_FULL), "full");
  EXPECT_STREQ(oscar::type_to_cmd_name(JOB_DEFINITION_SUBTYPE_INCREMENTAL), "incr");
  EXPECT_STREQ(oscar::type_to_cmd_name(JOB_DEFINITION_SUBTYPE_CUMULATIVE), "diff");
}

TEST(Type_To_Cmd_Name, gives_null_for_any_other_subtype)
{
  for (int subtype : {-1, 0, 4, 5, 13, 14, 35})
    EXPECT_EQ(oscar::type_to_cmd_name(static_cast<Job_Definition_Subtype>(subtype)), nullptr) << subtype;
}

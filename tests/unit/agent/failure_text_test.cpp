#include "agent/failure_text.h"

#include "support/temp_dir.h"

#include <gtest/gtest.h>

using namespace kestrel;
using namespace kestrel_test;

namespace
{
Job_Alert alert(int code)
{
  Job_Alert made;
  made.category = 7;
  made.code = code;
  return made;
}
} // namespace

TEST(Failure_Text, takes_the_first_and_the_last_error_of_a_job_log)
{
  const Temp_Dir dir;
  const std::string log =
      dir.write("log", "2026-01-31 10:00:00.123 [1.2] INFO Oscar command:\n"
                       "/opt/oscar/bin/brcmd ERROR is part of this line\n"
                       "2026-01-31 10:00:01.000 [1.2] ERROR brcmd: no space.\n"
                       "2026-01-31 10:00:01.500 [1.2] ERROR between\n"
                       "2026-01-31 10:00:02.000 [1.2] ERROR Failed to get backup info head. \n");
  EXPECT_EQ("brcmd: no space; Failed to get backup info head", reason_from_job_log(log));
}

TEST(Failure_Text, says_a_single_error_once)
{
  const Temp_Dir dir;
  EXPECT_EQ("alone", reason_from_job_log(dir.write("log", "2026-01-31 10:00:01.000 [1.2] ERROR alone.\n")));
}

TEST(Failure_Text, leaves_out_what_only_follows_from_the_error_of_the_tool)
{
  const Temp_Dir dir;
  const std::string at = "2026-01-31 10:00:01.000 [1.2] ";
  const std::string tool = at + "INFO Oscar command:\n/opt/oscar/bin/osrexp -USYSDBA/****** file=/s/a\n";
  const std::string missing = at + "ERROR Osr file does not exist, path: '/s/a'.\n";
  const std::string archive = at + "ERROR (1|2) The archive could not be written: the pre-action failed\n";
  EXPECT_EQ("osrexp: ERROR, no such table",
            reason_from_job_log(
                dir.write("said", tool + at + "ERROR osrexp: ERROR, no such table\n" + missing + archive)));
  EXPECT_EQ("Osr file does not exist, path: '/s/a'",
            reason_from_job_log(dir.write("silent", tool + missing + archive)));
  // The remark is that of another dump.
  EXPECT_EQ("osrexp: a remark; Osr file does not exist, path: '/s/a'",
            reason_from_job_log(
                dir.write("next", tool + at + "ERROR osrexp: a remark\n" + tool + missing + archive)));
  EXPECT_EQ("osrimp: ERROR, no room",
            reason_from_job_log(dir.write(
                "import", tool + at + "ERROR osrimp: ERROR, no room\n" + at +
                              "ERROR (1|2) The archive could not be restored: the post-action failed\n")));
  EXPECT_EQ("cannot write: no space",
            reason_from_job_log(dir.write("repeated", at + "ERROR cannot write: no space\n" + at +
                                                          "ERROR The archive could not be written: cannot "
                                                          "write: no space\n")));
}

TEST(Failure_Text, keeps_what_the_archive_failed_of_itself)
{
  const Temp_Dir dir;
  const std::string at = "2026-01-31 10:00:01.000 [1.2] ";
  EXPECT_EQ("The archive could not be written: the pre-action failed",
            reason_from_job_log(
                dir.write("alone", at + "ERROR The archive could not be written: the pre-action failed\n")));
  EXPECT_EQ("osrexp: a remark; The archive could not be written: no space",
            reason_from_job_log(dir.write("own", at + "ERROR osrexp: a remark\n" + at +
                                                     "ERROR The archive could not be written: no space\n")));
}

TEST(Failure_Text, leaves_out_process_and_thread)
{
  const Temp_Dir dir;
  EXPECT_EQ("(x) a: b",
            reason_from_job_log(dir.write("log", "2026-01-31 10:00:01.000 [1.2] ERROR (12|34) (x) a: b\n")));
}

TEST(Failure_Text, says_nothing_without_a_log_or_without_errors)
{
  const Temp_Dir dir;
  EXPECT_EQ("", reason_from_job_log(dir / "missing"));
  EXPECT_EQ("", reason_from_job_log(dir.write("log", "2026-01-31 10:00:01.000 [1.2] INFO fine\n")));
}

TEST(Failure_Text, advises_by_the_last_alert_and_never_says_nothing)
{
  EXPECT_NE(std::string::npos, advice_for({alert(15), alert(3)}).find("kestrel login"));
  EXPECT_EQ("read the job log", advice_for({}));
  EXPECT_EQ("read the job log", advice_for({alert(12345)}));
}

TEST(Failure_Text, says_why_a_chain_was_not_continued)
{
  const Temp_Dir dir;
  EXPECT_EQ(
      "full backup F1 cannot be continued: it lies in another pool",
      fallback_from_job_log(dir.write(
          "pool",
          "2026-01-31 10:00:00.000 [1.2] INFO (1|2) "
          "Oscar_Brcmd_Backup_Executor::check_full_backup_set_state: full backup F1 cannot be continued: "
          "it lies in another pool\n"
          "2026-01-31 10:00:00.000 [1.2] INFO Lack of backup info, run full backup instead.\n"
          "2026-01-31 10:00:01.000 [1.2] INFO Oscar command:\n")));
  EXPECT_EQ(
      "Failed to open file /o/agent/lastlsn.dat: No such file or directory",
      fallback_from_job_log(dir.write(
          "file",
          "2026-01-31 10:00:00.000 [1.2] ERROR Failed to open file /o/agent/lastlsn.dat: No such file or "
          "directory\n"
          "2026-01-31 10:00:00.000 [1.2] INFO Lack of backup info, run full backup instead.\n")));
  EXPECT_EQ(
      "the chain cannot be continued",
      fallback_from_job_log(dir.write(
          "bare", "2026-01-31 10:00:00.000 [1.2] INFO Lack of backup info, run full backup instead.\n")));
}

TEST(Failure_Text, a_chain_that_was_continued_has_no_reason)
{
  const Temp_Dir dir;
  EXPECT_EQ("", fallback_from_job_log(dir.write("log", "2026-01-31 10:00:01.000 [1.2] ERROR something else\n"
                                                       "2026-01-31 10:00:01.000 [1.2] INFO fine\n")));
  EXPECT_EQ("", fallback_from_job_log(dir / "missing"));
}

TEST(Failure_Text, what_made_it_a_full_backup_is_not_what_it_failed_of)
{
  const Temp_Dir dir;
  EXPECT_EQ("brcmd: no space",
            reason_from_job_log(dir.write(
                "log", "2026-01-31 10:00:00.000 [1.2] ERROR Failed to open file /o/agent/lastlsn.dat: gone\n"
                       "2026-01-31 10:00:00.000 [1.2] INFO Lack of backup info, run full backup instead.\n"
                       "2026-01-31 10:00:01.000 [1.2] ERROR brcmd: no space.\n")));
}

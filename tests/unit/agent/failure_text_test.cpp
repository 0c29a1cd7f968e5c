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
  const std::string log = dir.write("log", "2026-01-31 10:00:00.123 [1.2] INFO Oscar command:\n"
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

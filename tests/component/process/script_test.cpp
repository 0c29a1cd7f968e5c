#include "process/script.h"

#include "support/fault_process_api.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

#include <ace/Log_Record.h>
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

using kestrel_test::Log_Capture;
using kestrel_test::Temp_Dir;

namespace
{
class Record_Keeper : public ACE_Log_Msg_Callback
{
public:
  void log(ACE_Log_Record& record) override { records.emplace_back(record.type(), record.msg_data()); }
  std::vector<std::pair<u_long, std::string>> records;
};
} // namespace

TEST(Execute_Script, succeeds_with_status_0_only)
{
  EXPECT_TRUE(execute_script("exit 0", false, nullptr));
  EXPECT_FALSE(execute_script("exit 1", false, nullptr));
  EXPECT_FALSE(execute_script("kill -9 $$", false, nullptr));
  EXPECT_FALSE(execute_script("/nonexistent/script", false, nullptr));
}

TEST(Execute_Script, counts_an_empty_script_as_success_without_running_anything)
{
  kestrel_test::Fault_Process_Api api;
  EXPECT_TRUE(execute_script("", false, nullptr));
  EXPECT_TRUE(api.requests().empty());
}

TEST(Execute_Script, takes_scripts_of_many_lines_and_any_length)
{
  Temp_Dir dir;
  std::string script = "cd " + dir.path() + "\n# " + std::string(5000, 'x') +
                       "\nfor i in 1 2 3; do\n  echo \"$i 'quoted'\" >> out\ndone\n";
  EXPECT_TRUE(execute_script(script, false, nullptr));
  EXPECT_EQ("1 'quoted'\n2 'quoted'\n3 'quoted'\n", kestrel_test::read_file(dir / "out"));
}

TEST(Execute_Script, hands_its_output_to_the_callback_alone)
{
  Log_Capture log;
  auto keeper = std::make_shared<Record_Keeper>();
  EXPECT_TRUE(execute_script("echo good; echo bad >&2", false, keeper));
  ASSERT_EQ(2u, keeper->records.size());
  for (const auto& record : keeper->records)
    EXPECT_EQ(record.first == LM_INFO ? "good\n" : "bad\n", record.second);
  EXPECT_NE(keeper->records[0].first, keeper->records[1].first);
  EXPECT_TRUE(log.lines().empty());
}

TEST(Execute_Script, writes_its_output_nowhere_without_a_callback)
{
  Log_Capture log;
  EXPECT_TRUE(execute_script("echo secret; echo secret >&2", false, nullptr));
  EXPECT_TRUE(log.lines().empty());
}

TEST(Execute_Script, says_that_the_shell_cannot_be_started)
{
  Log_Capture log;
  kestrel_test::Fault_Process_Api api;
  api.fail_all(EAGAIN);
  auto keeper = std::make_shared<Record_Keeper>();
  EXPECT_FALSE(execute_script("echo hunter2", false, keeper));
  log.expect(LM_ERROR, "Failed to start a script, errno=11");
  EXPECT_EQ(1u, keeper->records.size());
  EXPECT_FALSE(log.contains("hunter2"));
}

#include "base/log.h"

#include "support/log_capture.h"
#include "support/temp_dir.h"

#include <ace/Log_Record.h>
#include <ace/OS_NS_sys_time.h>
#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <regex>
#include <thread>

using kestrel_test::Log_Capture;
using kestrel_test::read_file;
using kestrel_test::Temp_Dir;

namespace
{
/// Gives the log back to the test program's own watch when the process log was tried.
class Scoped_Process_Log
{
public:
  Scoped_Process_Log() : backend_(ACE_Log_Msg::msg_backend()), flags_(ACE_LOG_MSG->flags()) {}
  ~Scoped_Process_Log()
  {
    kestrel::close_process_log();
    ACE_Log_Msg::msg_backend(backend_);
    ACE_LOG_MSG->clr_flags(~flags_);
    ACE_LOG_MSG->set_flags(flags_);
  }

private:
  ACE_Log_Msg_Backend* const backend_;
  const u_long flags_;
};

unsigned lines_of(const std::string& text)
{
  return static_cast<unsigned>(std::count(text.begin(), text.end(), '\n'));
}
} // namespace

TEST(Log_Line, has_a_stamp_the_priority_and_one_line_end)
{
  ACE_Log_Record record(LM_WARNING, ACE_OS::gettimeofday(), 1);
  record.msg_data("text without an end");
  const std::string line = kestrel::format_log_line(record);
  EXPECT_TRUE(std::regex_match(line, std::regex("\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d{3} "
                                                "\\[\\d+\\.\\d+\\] WARNING text without an end\n")))
      << line;
  record.msg_data("with an end\n");
  EXPECT_EQ(1u, lines_of(kestrel::format_log_line(record)));
}

TEST(Process_Log, writes_what_is_urgent_enough)
{
  Temp_Dir dir;
  Scoped_Process_Log restore;
  kestrel::Log_Options options;
  options.file = dir / "agent.log";
  options.minimum = LM_WARNING;
  std::string error;
  ASSERT_TRUE(kestrel::open_process_log(options, error)) << error;
  ACE_DEBUG((LM_INFO, "too quiet\n"));
  ACE_ERROR((LM_ERROR, "bad thing"));
  std::thread([] { ACE_ERROR((LM_WARNING, "from a thread\n")); }).join();
  const std::string log = read_file(dir / "agent.log");
  EXPECT_EQ(2u, lines_of(log));
  EXPECT_NE(std::string::npos, log.find(" ERROR bad thing\n"));
  EXPECT_NE(std::string::npos, log.find(" WARNING from a thread\n"));
}

TEST(Process_Log, its_minimum_can_change)
{
  Temp_Dir dir;
  Scoped_Process_Log restore;
  kestrel::Log_Options options;
  options.file = dir / "agent.log";
  std::string error;
  ASSERT_TRUE(kestrel::open_process_log(options, error)) << error;
  kestrel::set_process_log_minimum(LM_ERROR);
  ACE_ERROR((LM_WARNING, "too quiet now\n"));
  kestrel::set_process_log_minimum(LM_INFO);
  ACE_ERROR((LM_WARNING, "heard again\n"));
  const std::string log = read_file(dir / "agent.log");
  EXPECT_EQ(1u, lines_of(log));
  EXPECT_NE(std::string::npos, log.find("heard again"));
}

TEST(Process_Log, follows_a_rotated_file)
{
  Temp_Dir dir;
  Scoped_Process_Log restore;
  kestrel::Log_Options options;
  options.file = dir / "agent.log";
  std::string error;
  ASSERT_TRUE(kestrel::open_process_log(options, error)) << error;
  ACE_ERROR((LM_ERROR, "first\n"));
  ASSERT_EQ(0, ::rename((dir / "agent.log").c_str(), (dir / "agent.log.1").c_str()));
  ACE_ERROR((LM_ERROR, "second\n"));
  EXPECT_EQ(1u, lines_of(read_file(dir / "agent.log.1")));
  EXPECT_NE(std::string::npos, read_file(dir / "agent.log").find("second"));
}

TEST(Process_Log, stays_as_it_was_when_the_file_cannot_be_opened)
{
  Scoped_Process_Log restore;
  kestrel::Log_Options options;
  options.file = "/nonexistent/agent.log";
  std::string error;
  ACE_Log_Msg_Backend* const before = ACE_Log_Msg::msg_backend();
  EXPECT_FALSE(kestrel::open_process_log(options, error));
  EXPECT_EQ("cannot open log file /nonexistent/agent.log: No such file or directory", error);
  EXPECT_EQ(before, ACE_Log_Msg::msg_backend());
}

TEST(Log_File_Callback, keeps_the_lines_of_its_thread_only)
{
  Temp_Dir dir;
  auto callback = std::make_shared<kestrel::Log_File_Callback>();
  std::string error;
  ASSERT_TRUE(callback->open(dir / "job.log", error)) << error;
  EXPECT_EQ(dir / "job.log", callback->path());
  {
    kestrel::Thread_Log_Callback scope(callback);
    ACE_DEBUG((LM_DEBUG, "job line"));
    std::thread([] { ACE_DEBUG((LM_DEBUG, "other thread\n")); }).join();
    std::thread([&] {
      kestrel::set_thread_log_callback(callback.get());
      ACE_DEBUG((LM_DEBUG, "helper thread\n"));
      kestrel::set_thread_log_callback(nullptr);
    }).join();
    {
      kestrel::Thread_Log_Callback nothing(nullptr);
      ACE_DEBUG((LM_DEBUG, "still here\n"));
    }
  }
  ACE_DEBUG((LM_DEBUG, "after the job\n"));
  const std::string log = read_file(dir / "job.log");
  EXPECT_EQ(3u, lines_of(log));
  EXPECT_NE(std::string::npos, log.find("DEBUG job line\n"));
  EXPECT_NE(std::string::npos, log.find("helper thread\n"));
  EXPECT_NE(std::string::npos, log.find("still here\n"));
}

TEST(Log_File_Callback, says_why_a_file_cannot_be_opened)
{
  kestrel::Log_File_Callback callback;
  std::string error;
  EXPECT_FALSE(callback.open("/nonexistent/job.log", error));
  EXPECT_NE(std::string::npos, error.find("No such file"));
  ACE_Log_Record record(LM_INFO, ACE_OS::gettimeofday(), 1);
  record.msg_data("dropped");
  callback.log(record);
}

TEST(Log_Capture, fails_a_test_for_unexpected_warnings_only)
{
  EXPECT_NONFATAL_FAILURE(
      {
        Log_Capture log;
        ACE_ERROR((LM_ERROR, "surprise\n"));
      },
      "surprise");
  EXPECT_NONFATAL_FAILURE(
      {
        Log_Capture log;
        ACE_ERROR((LM_WARNING, "twice\n"));
        ACE_ERROR((LM_WARNING, "twice\n"));
        log.expect(LM_WARNING, "twice");
      },
      "twice");
  Log_Capture log;
  ACE_DEBUG((LM_INFO, "fine\n"));
  ACE_ERROR((LM_EMERGENCY, "allowed %d\n", 1));
  log.allow(LM_EMERGENCY, "allowed");
}

TEST(Log_Capture, fails_a_test_for_a_line_that_did_not_come)
{
  Log_Capture log;
  ACE_ERROR((LM_ERROR, "one\n"));
  EXPECT_NONFATAL_FAILURE(log.expect(LM_WARNING, "one"), "no log line");
  EXPECT_NONFATAL_FAILURE(log.expect_exactly(LM_ERROR, "one"), "no log line");
  EXPECT_TRUE(log.expect_exactly(LM_ERROR, "one\n"));
}

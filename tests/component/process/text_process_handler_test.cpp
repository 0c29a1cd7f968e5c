#include "tool_runs.h"

#include "support/fault_process_api.h"
#include "support/log_capture.h"

#include <ace/Event_Handler.h>
#include <ace/Log_Msg.h>
#include <ace/Log_Record.h>
#include <gtest/gtest.h>

#include <stdexcept>

using namespace tool_runs;
using kestrel_test::Log_Capture;
using kestrel_test::make_fake_tool;
using kestrel_test::Temp_Dir;

TEST(Text_Process_Handler, delivers_lines_of_both_streams)
{
  Temp_Dir dir;
  Collecting_Handler handler;
  EXPECT_EQ(3, run(handler, make_fake_tool(dir, "tool", "out one\nerr bad\nout two\nexit 3\n")));
  EXPECT_EQ((Lines{"one", "two"}), handler.out);
  EXPECT_EQ((Lines{"bad"}), handler.err);
  EXPECT_EQ(1, handler.out_closed);
  EXPECT_EQ(1, handler.err_closed);
}

TEST(Text_Process_Handler, delivers_empty_and_unterminated_lines_and_keeps_carriage_returns)
{
  Temp_Dir dir;
  Collecting_Handler handler;
  EXPECT_EQ(0,
            run(handler, make_fake_tool(dir, "tool", "out \"\"\nout \"dos\\r\"\nout \"\"\nout_raw last\n")));
  EXPECT_EQ((Lines{"", "dos\r", "", "last"}), handler.out);
  EXPECT_TRUE(handler.terminated_by_nul);
}

TEST(Text_Process_Handler, gives_the_exit_status_as_result)
{
  Temp_Dir dir;
  for (int status : {0, 1, 2, 127, 255}) {
    Collecting_Handler handler;
    EXPECT_EQ(status, run(handler, make_fake_tool(dir, "tool", "exit " + std::to_string(status) + "\n")));
  }
}

TEST(Text_Process_Handler, gives_minus_one_for_death_by_a_signal)
{
  Temp_Dir dir;
  for (const char* name : {"KILL", "TERM", "SEGV", "PIPE"}) {
    Collecting_Handler handler;
    EXPECT_EQ(-1, run(handler, make_fake_tool(dir, "tool", std::string("out said\ndie ") + name + "\n")))
        << name;
    EXPECT_EQ(ECANCELED, errno);
    EXPECT_EQ((Lines{"said"}), handler.out);
  }
}

TEST(Text_Process_Handler, says_that_a_missing_program_cannot_be_started)
{
  Collecting_Handler handler;
  EXPECT_EQ(-1, run(handler, "/nonexistent/tool"));
  EXPECT_EQ(ENOENT, errno);
  EXPECT_EQ(-1, run(handler, "no_such_program_in_the_path"));
  EXPECT_EQ(ENOENT, errno);
  EXPECT_EQ(0, handler.out_closed);
}

TEST(Text_Process_Handler, says_that_a_file_is_no_program)
{
  Temp_Dir dir;
  Collecting_Handler handler;
  EXPECT_EQ(-1, run(handler, dir.write("plain", "echo hello\n", 0644)));
  EXPECT_EQ(EACCES, errno);
  EXPECT_EQ(-1, run(handler, dir.make_dir("directory")));
  EXPECT_EQ(EACCES, errno);
  // No shell steps in for a file that the system cannot execute.
  EXPECT_EQ(-1, run(handler, dir.write("no_magic", "echo hello\n", 0755)));
  EXPECT_EQ(ENOEXEC, errno);
}

TEST(Text_Process_Handler, says_that_there_is_no_command)
{
  Collecting_Handler handler;
  EXPECT_EQ(-1, run(handler, ""));
  EXPECT_EQ(ENOENT, errno);
  EXPECT_EQ(-1, run(handler, "   "));
}

TEST(Text_Process_Handler, passes_on_why_the_system_refuses_a_process)
{
  kestrel_test::Fault_Process_Api api;
  Temp_Dir dir;
  const std::string tool = make_fake_tool(dir, "tool", "out x\n");
  api.fail_spawn(2, EAGAIN);
  Collecting_Handler handler;
  EXPECT_EQ(0, run(handler, tool));
  EXPECT_EQ(-1, run(handler, tool));
  EXPECT_EQ(EAGAIN, errno);
  EXPECT_EQ(0, run(handler, tool));
  EXPECT_EQ(3u, api.requests().size());
}

TEST(Text_Process_Handler, reads_a_chatty_stderr_while_stdout_stays_open)
{
  Temp_Dir dir;
  Collecting_Handler handler;
  EXPECT_EQ(0, run(handler, make_fake_tool(dir, "tool",
                                           "out first\nerr_lines 30000 \"error line {n}\"\n"
                                           "out_lines 30000 \"row {n}\"\nerr_lines 30000 \"more {n}\"\n")));
  ASSERT_EQ(30001u, handler.out.size());
  ASSERT_EQ(60000u, handler.err.size());
  EXPECT_EQ("row 29999", handler.out.back());
  EXPECT_EQ("more 29999", handler.err.back());
}

TEST(Text_Process_Handler, drains_the_rest_after_a_negative_result)
{
  Temp_Dir dir;
  Collecting_Handler handler;
  handler.stop_after = 2;
  EXPECT_EQ(0, run(handler, make_fake_tool(dir, "tool", "out_lines 100000 \"row {n}\"\nerr end\n")));
  EXPECT_EQ((Lines{"row 0", "row 1"}), handler.out);
  EXPECT_EQ((Lines{"end"}), handler.err);
  EXPECT_EQ(1, handler.out_closed);
}

TEST(Text_Process_Handler, starts_each_run_afresh)
{
  Temp_Dir dir;
  Tool_Options options(make_fake_tool(dir, "tool", "out \"${run}\"\nout_raw rest\nexit ${run}\n"));
  Collecting_Handler handler;
  handler.stop_after = 1;
  EXPECT_EQ(1, handler.call(6, options));
  handler.stop_after = 0;
  EXPECT_EQ(2, handler.call(6, options));
  EXPECT_EQ(3, handler.call(6, options));
  EXPECT_EQ((Lines{"1", "2", "rest", "3", "rest"}), handler.out);
}

TEST(Text_Process_Handler, cuts_a_line_at_its_own_limit)
{
  Temp_Dir dir;
  Collecting_Handler handler(4);
  EXPECT_EQ(0, run(handler, make_fake_tool(dir, "tool", "out 1234\nout 123456\nerr 123456\nout x\n")));
  EXPECT_EQ((Lines{"1234", "1234", "x"}), handler.out);
  EXPECT_EQ("56", handler.segments);
  EXPECT_EQ((Lines{"1234"}), handler.err);
}

TEST(Text_Process_Handler, cuts_a_line_at_16_mib)
{
  Temp_Dir dir;
  Collecting_Handler handler;
  EXPECT_EQ(0, run(handler, make_fake_tool(dir, "tool", "out_bytes 17000000 a\nout \"\"\nout next\n")));
  ASSERT_EQ(2u, handler.out.size());
  EXPECT_EQ(16u * 1024 * 1024, handler.out[0].size());
  EXPECT_EQ(17000000u - 16u * 1024 * 1024, handler.segments.size());
  EXPECT_EQ("next", handler.out[1]);
}

TEST(Text_Process_Handler, passes_up_to_127_arguments)
{
  Temp_Dir dir;
  std::string command = make_fake_tool(dir, "tool", "dump_args " + (dir / "args") + "\n");
  std::string expected = command + "\n";
  for (int i = 1; i < 127; ++i) {
    command += " " + std::to_string(i);
    expected += std::to_string(i) + "\n";
  }
  Collecting_Handler handler;
  EXPECT_EQ(0, run(handler, command));
  EXPECT_EQ(expected + "--\n", kestrel_test::read_file(dir / "args"));
}

TEST(Text_Process_Handler, passes_the_first_1023_characters_of_a_long_command_line)
{
  Temp_Dir dir;
  const std::string tool = make_fake_tool(dir, "tool", "dump_args " + (dir / "args") + "\n");
  Collecting_Handler handler;
  EXPECT_EQ(0, run(handler, tool + " " + std::string(4000, 'x')));
  const std::string passed(1023 - tool.size() - 1, 'x');
  EXPECT_EQ(tool + "\n" + passed + "\n--\n", kestrel_test::read_file(dir / "args"));
}

TEST(Text_Process_Handler, gives_the_child_a_clean_start)
{
  Temp_Dir dir;
  const std::string tool = make_fake_tool(dir, "tool", "dump_state " + (dir / "state") + "\n");
  // Neither this descriptor nor the ignored signal may reach the child.
  int leaky[2];
  ASSERT_EQ(0, ::pipe(leaky));
  Collecting_Handler handler;
  EXPECT_EQ(0, run(handler, tool));
  ::close(leaky[0]);
  ::close(leaky[1]);
  const std::string state = kestrel_test::read_file(dir / "state");
  const size_t line_end = state.find('\n');
  const std::string pid = state.substr(4, line_end - 4);
  // 3 is the file that the tool writes the answer to, or one of its own.
  EXPECT_NE(std::string::npos, state.find("\nfds=0,1,2,")) << state;
  EXPECT_EQ(std::string::npos, state.find("," + std::to_string(leaky[1]) + ",")) << state;
  EXPECT_NE(std::string::npos, state.find("\npgid=" + pid + "\n")) << state;
  EXPECT_NE(std::string::npos, state.find("\nblocked=\n")) << state;
  EXPECT_NE(std::string::npos, state.find("\npipe=default\n")) << state;
  EXPECT_NE(std::string::npos, state.find("\nstdin=/dev/null\n")) << state;
}

TEST(Text_Process_Handler, passes_the_options_environment_over_the_own_one)
{
  Temp_Dir dir;
  Tool_Options options(make_fake_tool(dir, "tool", "dump_env " + (dir / "env") + "\n"));
  options.setenv("LC_ALL=en_US.UTF8");
  options.setenv("OSCAR_TEST_HOME", "%s", "/first");
  options.setenv("OSCAR_TEST_HOME", "%s", "/second");
  options.setenv("HOME", "%s", "/own");
  Collecting_Handler handler;
  EXPECT_EQ(0, handler.call(6, options));
  const std::string env = "\n" + kestrel_test::read_file(dir / "env");
  EXPECT_NE(std::string::npos, env.find("\nLC_ALL=en_US.UTF8\n"));
  EXPECT_NE(std::string::npos, env.find("\nOSCAR_TEST_HOME=/second\n"));
  EXPECT_EQ(std::string::npos, env.find("/first"));
  EXPECT_NE(std::string::npos, env.find("\nHOME=/own\n"));
  EXPECT_NE(std::string::npos, env.find("\nPATH="));
}

namespace
{
class Throwing_Handler : public Collecting_Handler
{
public:
  int handle_stdout_line(const char* line, unsigned int length) override
  {
    Collecting_Handler::handle_stdout_line(line, length);
    throw std::runtime_error("too complex");
  }
};

/// Ends its own tool at the first line.
class Self_Terminating_Handler : public Collecting_Handler
{
public:
  int handle_stdout_line(const char*, unsigned int) override
  {
    terminate_result = terminate(600);
    wait_result = wait(nullptr);
    wait_error = errno;
    return 0;
  }
  int terminate_result = 0;
  int wait_result = 0;
  int wait_error = 0;
};

class Exit_Counter : public ACE_Event_Handler
{
public:
  int handle_exit(ACE_Process*) override { return ++exits; }
  int exits = 0;
};

class Logging_Handler : public Text_Process_Handler
{
public:
  Logging_Handler() : Text_Process_Handler(0, 60) {}
  int handle_stdout_line(const char* line, unsigned int length) override
  {
    return log_line(LM_INFO, line, length);
  }
  int handle_stderr_line(const char* line, unsigned int length) override
  {
    return log_line(LM_ERROR, line, length);
  }
};

class Record_Keeper : public ACE_Log_Msg_Callback
{
public:
  void log(ACE_Log_Record& record) override { texts.emplace_back(record.msg_data()); }
  Lines texts;
};
} // namespace

TEST(Text_Process_Handler, survives_a_handler_that_throws)
{
  Log_Capture log;
  Temp_Dir dir;
  Throwing_Handler handler;
  EXPECT_EQ(0, run(handler, make_fake_tool(dir, "tool", "out_lines 1000 secret\nerr end\n")));
  EXPECT_EQ(1u, handler.out.size());
  EXPECT_EQ((Lines{"end"}), handler.err);
  log.expect(LM_ERROR, "too complex");
  EXPECT_FALSE(log.contains("secret"));
}

TEST(Text_Process_Handler, lets_a_handler_end_its_own_tool)
{
  Temp_Dir dir;
  Self_Terminating_Handler handler;
  EXPECT_EQ(-1, run(handler, make_fake_tool(dir, "tool", "out up\nhang\n")));
  EXPECT_EQ(-1, handler.terminate_result);
  EXPECT_EQ(-1, handler.wait_result);
  EXPECT_EQ(EDEADLK, handler.wait_error);
}

TEST(Text_Process_Handler, tells_an_event_handler_of_the_end)
{
  Temp_Dir dir;
  Tool_Options options(make_fake_tool(dir, "tool", "exit 1\n"));
  ACE_Process_Ex process(6, nullptr, no_callback);
  Collecting_Handler handler;
  Exit_Counter counter;
  ASSERT_EQ(0, handler.spawn(&process, options, &counter));
  EXPECT_EQ(1, handler.wait(nullptr));
  EXPECT_EQ(1, counter.exits);
}

TEST(Text_Process_Handler, logs_lines_to_the_callback_of_the_process_and_to_the_log)
{
  Log_Capture log;
  Temp_Dir dir;
  Tool_Options options(make_fake_tool(dir, "tool", "out \"100% %s\"\nerr bad\nout_bytes 5000 x\n"));
  auto keeper = std::make_shared<Record_Keeper>();
  ACE_Process_Ex process(6, nullptr, keeper);
  Logging_Handler handler;
  EXPECT_EQ(0, handler.call(&process, options));
  ASSERT_EQ(3u, keeper->texts.size());
  log.expect_exactly(LM_INFO, "100% %s\n");
  log.expect_exactly(LM_ERROR, "bad\n");
  log.expect_exactly(LM_INFO, std::string(4000, 'x') + "...\n");
  // Lines of this thread that are not the tool's do not go there.
  ACE_DEBUG((LM_INFO, "after\n"));
  EXPECT_EQ(3u, keeper->texts.size());
}

TEST(Text_Process_Handler, writes_to_a_tool_through_a_stdin_pipe)
{
  Temp_Dir dir;
  Tool_Options options(make_fake_tool(dir, "tool", "stdin_to " + (dir / "got") + "\n"));
  ACE_Process_Ex process(7, nullptr, no_callback);
  Collecting_Handler handler;
  ASSERT_EQ(0, handler.spawn(&process, options, nullptr));
  EXPECT_EQ(5, read_write_trait::write_n(process.stdin_pipe().get(), "hello", 5));
  process.stdin_pipe().reset();
  EXPECT_EQ(0, handler.wait(nullptr));
  EXPECT_EQ("hello", kestrel_test::read_file(dir / "got"));
}

TEST(Text_Process_Handler, never_logs_a_command_line)
{
  Log_Capture log;
  Temp_Dir dir;
  Collecting_Handler handler;
  EXPECT_EQ(0, run(handler, make_fake_tool(dir, "tool", "out up\n") + " -USYSTEM/hunter2"));
  EXPECT_EQ(-1, run(handler, "/nonexistent/tool -USYSTEM/hunter2"));
  EXPECT_FALSE(log.contains("hunter2"));
}

#include "oscar/oscar_cmd_handler.h"

#include "base/charset.h"
#include "base/ignore_result.h"
#include "base/string_sprintf.h"
#include "oscar/guarded_regex.h"
#include "oscar/oscar_argument_check.h"
#include "process/process_ex.h"
#include "process/process_options.h"

#include <ace/Log_Msg.h>
#include <boost/algorithm/string.hpp>

#include <cstring>

const boost::regex RE_LOGIN_LINE(".*isql: ERROR, (.*)");
const boost::regex RE_END_LINE("\\(\\d+ row[s]?\\)");
const boost::regex RE_VERSION_LINE(".*\\(build\\s+(.*)\\) for.*");
const boost::regex RE_OSRIMP_VERSION_LINE("osrimp.*\\s+(.*)");

namespace
{
// What ACE_Process_Options takes of the defaults it is built with; see the limits in the header.
const size_t Max_Command_Bytes = 1023;
const int Max_Arguments = 127;

const boost::regex Brcmd_Password("-p\\s+\\S+");
const boost::regex Login_Password("(-U[^/ ]+/)([^/ ]+)");

// Replaces every occurrence of SPAN that stands at the end of an argument.
void replace_span(std::string& text, const std::string& span, const std::string& replacement)
{
  size_t at = 0;
  while ((at = text.find(span, at)) != std::string::npos) {
    const size_t behind = at + span.size();
    if (behind == text.size() || text[behind] == ' ') {
      text.replace(at, span.size(), replacement);
      at += replacement.size();
    } else {
      ++at;
    }
  }
}

void mask_login(std::string& text, bool is_brcmd, const Oscar_Cmd_Login& login)
{
  if (oscar::null_or_empty(login.password))
    return;
  if (is_brcmd)
    replace_span(text, std::string("-p ") + login.password, "-p***");
  else if (!oscar::null_or_empty(login.username)) {
    const std::string user = std::string("-U") + login.username + "/";
    replace_span(text, user + login.password, user + "***");
  }
}

void log_command(const char* cmd, bool is_brcmd, const Oscar_Cmd_Login& login)
{
  const std::string masked = mask_oscar_cmd(cmd, is_brcmd, login);
  ACE_DEBUG((LM_INFO, "Oscar command:\n%s\n", masked.c_str()));
}

// The arguments that ACE makes of the command line; the last ones are dropped silently when there are too
// many.
int argument_count(ACE_Process_Options& opts)
{
  char* const* argv = opts.command_line_argv();
  int count = 0;
  while (argv && argv[count])
    ++count;
  return count;
}

bool set_command_line(const char* cmd, ACE_Process_Options& opts)
{
  const UTF16_String converted(cmd);
  const size_t length = ::strlen(converted.c_local());
  if (length <= Max_Command_Bytes) {
    if (opts.command_line("%s", converted.c_local()) == 0 && argument_count(opts) < Max_Arguments)
      return true;
  }
  kestrel::ignore_result(opts.command_line("%s", ""), "an empty line always fits");
  ACE_ERROR((LM_ERROR,
             "Oscar command of %Q bytes is not run: a command line holds at most %Q bytes and %d arguments. "
             "Shorten names and paths.\n",
             static_cast<ACE_UINT64>(length), static_cast<ACE_UINT64>(Max_Command_Bytes), Max_Arguments - 1));
  return false;
}
} // namespace

Execute_Cmd_Line_Handler::Execute_Cmd_Line_Handler(std::string* error, bool logging_stdout)
    : Text_Process_Handler(0, 60), logging_stdout_(logging_stdout), error_(error)
{
}

Execute_Cmd_Line_Handler::~Execute_Cmd_Line_Handler() = default;

int Execute_Cmd_Line_Handler::handle_stdout_line(const char* line, unsigned int length)
{
  if (logging_stdout_)
    kestrel::ignore_result(log_line(LM_INFO, line, length), "the log is all there is to report to");
  return 0;
}

int Execute_Cmd_Line_Handler::handle_stderr_line(const char* line, unsigned int length)
{
  if (logging_stdout_) {
    kestrel::ignore_result(log_line(LM_ERROR, line, length), "the log is all there is to report to");
    return 0;
  }
  if (!error_)
    return 0;

  ACE_ERROR((LM_ERROR, "Failed info: %.*s\n", static_cast<int>(length), line));
  boost::cmatch groups;
  if (oscar::guarded_regex_match(line, line + length, groups, RE_LOGIN_LINE)) {
    const std::string text = boost::trim_copy(groups[1].str());
    string_sprintf(*error_, "Error, %s.", text.c_str());
  }
  return 0;
}

bool set_process_opts(const char* oscar_home, ACE_Process_Options& opts)
{
  if (!OSCAR_TEXT_GIVEN(oscar_home))
    return false;
  const char* const reason = "a full environment buffer shows as a tool that does not find its files";
  kestrel::ignore_result(opts.setenv("SZ_OSCAR_HOME", "%s", oscar_home), reason);
  opts.handle_inheritance(0);
  kestrel::ignore_result(opts.setenv("LC_ALL=en_US.UTF8"), reason);
  kestrel::ignore_result(opts.setenv("LANG=en_US.UTF8"), reason);
  // The tools bring their libraries along beside the programs.
  const std::string bin = std::string(oscar_home) + "/bin";
  kestrel::ignore_result(append_process_options_env(opts, "LD_LIBRARY_PATH", bin.c_str()), reason);
  return true;
}

bool set_process_opts(const char* oscar_home, const char* cmd, ACE_Process_Options& opts)
{
  if (!OSCAR_TEXT_GIVEN(cmd))
    return false;
  const bool fits = set_command_line(cmd, opts);
  return set_process_opts(oscar_home, opts) && fits;
}

std::string mask_oscar_cmd(const std::string& cmd, bool is_brcmd, const Oscar_Cmd_Login& login)
{
  std::string masked = cmd;
  mask_login(masked, is_brcmd, login);
  try {
    if (is_brcmd)
      return boost::regex_replace(masked, Brcmd_Password, "-p***");
    return boost::regex_replace(masked, Login_Password, "$1***");
  } catch (const std::exception&) {
    return masked.substr(0, masked.find(' ')) + " ***";
  }
}

int execute_oscar_cmd(const char* oscar_home, const char* cmd, const Oscar_Cmd_Login& login, bool is_brcmd,
                      std::shared_ptr<ACE_Log_Msg_Callback> log_msg_callback,
                      Text_Process_Handler& cmd_handler)
{
  if (!OSCAR_TEXT_GIVEN(oscar_home) || !OSCAR_TEXT_GIVEN(cmd))
    return -1;
  log_command(cmd, is_brcmd, login);

  ACE_Process_Ex process(6, nullptr, log_msg_callback);
  ACE_Process_Options opts(true, 1024, 16384, 512, 128);
  opts.setgroup(0); // a tool may be a wrapper: its children end with it
  kestrel::ignore_result(set_process_opts(oscar_home, cmd, opts),
                         "without a command line the run itself fails");
  return cmd_handler.call(&process, opts);
}

int execute_oscar_cmd(const char* oscar_home, const char* cmd, const Oscar_Cmd_Login& login, bool is_brcmd,
                      bool logging_stdout, std::shared_ptr<ACE_Log_Msg_Callback> log_msg_callback,
                      std::string* error)
{
  Execute_Cmd_Line_Handler handler(error, logging_stdout);
  return execute_oscar_cmd(oscar_home, cmd, login, is_brcmd, log_msg_callback, handler);
}

int execute_oscar_cmd(const char* oscar_home, const char* cmd, bool is_brcmd, bool logging_stdout,
                      std::shared_ptr<ACE_Log_Msg_Callback> log_msg_callback, std::string* error)
{
  return execute_oscar_cmd(oscar_home, cmd, Oscar_Cmd_Login(), is_brcmd, logging_stdout, log_msg_callback,
                           error);
}

int execute_oscar_brcmd_spawn(const char* oscar_home, const char* cmd, const Oscar_Cmd_Login& login,
                              std::shared_ptr<ACE_Log_Msg_Callback> log_msg_callback,
                              Execute_Cmd_Line_Handler& cmd_handler)
{
  if (!OSCAR_TEXT_GIVEN(oscar_home) || !OSCAR_TEXT_GIVEN(cmd))
    return -1;
  log_command(cmd, true, login);

  ACE_Process_Ex process(6, nullptr, log_msg_callback);
  ACE_Process_Options opts(true, 1024, 16384, 512, 128);
  opts.setgroup(0);
  kestrel::ignore_result(set_process_opts(oscar_home, cmd, opts), "without a command line the spawn fails");
  if (cmd_handler.spawn(&process, opts, nullptr) == -1) {
    ACE_ERROR((LM_ERROR, "Failed to spawn oscar process.\n"));
    return -1;
  }
  return cmd_handler.wait(nullptr);
}

int execute_oscar_brcmd_spawn(const char* oscar_home, const char* cmd,
                              std::shared_ptr<ACE_Log_Msg_Callback> log_msg_callback,
                              Execute_Cmd_Line_Handler& cmd_handler)
{
  return execute_oscar_brcmd_spawn(oscar_home, cmd, Oscar_Cmd_Login(), log_msg_callback, cmd_handler);
}

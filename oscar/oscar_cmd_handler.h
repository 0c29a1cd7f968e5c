#pragma once

#include "oscar/oscar_catalog_queries.h"
#include "oscar/oscar_query_handler.h"
#include "process/text_process_handler.h"

#include <ace/Log_Msg_Callback.h>
#include <ace/Process.h>
#include <boost/regex.hpp>

#include <memory>
#include <string>

/// Runs the OSCAR command-line tools (isql, osrexp, osrimp, brcmd) as child processes.
///
/// One header for all of it: the tool runner below, the isql query handler and the catalog queries
/// (included).
///
/// Limits:    a command line holds 1023 bytes and 126 arguments; a longer one is refused, never cut. Values
///            stand in it unescaped and no shell reads it: blanks split arguments, and a quote groups only
///            at the start of one.
/// Threads:   no state; any number of runs at once. Every execute function blocks until its child has
///            ended.
/// Ownership: texts are only read during the call; handlers stay with the caller and must outlive the run.
///            Groups:    each tool leads a process group of its own: whoever terminates it reaches its
///            children too.
/// Errors:    int results: 0 the tool succeeded, n > 0 its exit status, -1 no start or death by a signal.
/// Secrets:   the command is logged with the password masked and in no other form.
/// Crash:     leaves no files; the child dies with this process, the child's own children may not.

/// General line handler: copies the tool's output to the log, or keeps the error text of isql for the caller.
class Execute_Cmd_Line_Handler : public Text_Process_Handler
{
public:
  /// ERROR may be null; it is not owned, must outlive the run, and is only written when LOGGING_STDOUT is
  /// false.
  Execute_Cmd_Line_Handler(std::string* error, bool logging_stdout);
  ~Execute_Cmd_Line_Handler() override;

  int handle_stdout_line(const char* line, unsigned int length) override;
  int handle_stderr_line(const char* line, unsigned int length) override;

private:
  bool logging_stdout_;
  std::string* error_;
};

/// The login that a command line contains. Not owned. With it the runner masks the exact text of the
/// password, also one with blanks or slashes, where the general patterns would stop half-way.
struct Oscar_Cmd_Login {
  const char* username = nullptr;
  const char* password = nullptr;
};

/// Fills the environment of OPTS for any OSCAR tool: SZ_OSCAR_HOME, the locale, and <oscar_home>/bin (not
/// lib) on the library path; turns handle inheritance off. May be applied to the same options again. False:
/// no OSCAR_HOME.
[[nodiscard]] bool set_process_opts(const char* oscar_home, ACE_Process_Options& opts);

/// Sets the command line, then the environment. False when an argument is missing, or when CMD does not fit:
/// then the command line of OPTS is left empty, so that a run with it fails instead of executing a part of
/// the command.
[[nodiscard]] bool set_process_opts(const char* oscar_home, const char* cmd, ACE_Process_Options& opts);

/// Runs CMD to its end. IS_BRCMD chooses the password mask of the log. ERROR (may be null) receives the
/// cleaned isql error text, replaced by each further one, and only when LOGGING_STDOUT is false.
[[nodiscard]] int execute_oscar_cmd(const char* oscar_home, const char* cmd, bool is_brcmd,
                                    bool logging_stdout,
                                    std::shared_ptr<ACE_Log_Msg_Callback> log_msg_callback,
                                    std::string* error);

/// The same with the login that CMD contains, for an exact mask.
[[nodiscard]] int execute_oscar_cmd(const char* oscar_home, const char* cmd, const Oscar_Cmd_Login& login,
                                    bool is_brcmd, bool logging_stdout,
                                    std::shared_ptr<ACE_Log_Msg_Callback> log_msg_callback,
                                    std::string* error);

/// The same with the caller's handler, so that another thread can wait for the tool or terminate it.
[[nodiscard]] int execute_oscar_cmd(const char* oscar_home, const char* cmd, const Oscar_Cmd_Login& login,
                                    bool is_brcmd, std::shared_ptr<ACE_Log_Msg_Callback> log_msg_callback,
                                    Text_Process_Handler& cmd_handler);

/// Spawns brcmd on the caller's handler and waits for it without a limit; always uses the brcmd mask.
/// A failed start is logged and gives -1.
[[nodiscard]] int execute_oscar_brcmd_spawn(const char* oscar_home, const char* cmd,
                                            std::shared_ptr<ACE_Log_Msg_Callback> log_msg_callback,
                                            Execute_Cmd_Line_Handler& cmd_handler);

/// The same with the login that CMD contains, for an exact mask.
[[nodiscard]] int execute_oscar_brcmd_spawn(const char* oscar_home, const char* cmd,
                                            const Oscar_Cmd_Login& login,
                                            std::shared_ptr<ACE_Log_Msg_Callback> log_msg_callback,
                                            Execute_Cmd_Line_Handler& cmd_handler);

/// CMD as it may be logged. Should the patterns fail on it, only its first word is returned.
[[nodiscard]] std::string mask_oscar_cmd(const std::string& cmd, bool is_brcmd,
                                         const Oscar_Cmd_Login& login = Oscar_Cmd_Login());

/// Compiled once at load, then only read.
extern const boost::regex RE_LOGIN_LINE;
extern const boost::regex RE_END_LINE;
extern const boost::regex RE_VERSION_LINE;
extern const boost::regex RE_OSRIMP_VERSION_LINE;

#pragma once

#include "base/descriptor.h"
#include "process/process_options.h"

#include <ace/Log_Msg_Callback.h>
#include <ace/Process.h>

#include <memory>
#include <string>
#include <vector>

/// Which of a child's standard streams are pipes to this process.
enum Process_Flag { PROCESS_STDIN_PIPE = 1, PROCESS_STDOUT_PIPE = 2, PROCESS_STDERR_PIPE = 4 };

/// A child process with pipes, started without the surprises of the stock class: a program that cannot be
/// executed makes spawn fail, and no descriptor but 0, 1 and 2 reaches the child.
/// Not for:   collecting the child. Whoever spawned it must wait for it; usually that is
///            Text_Process_Handler.
/// Threads:   one owner.
/// Ownership: owns the parent's ends of the pipes until they are taken; not the child, which runs on when the
///            object goes.
/// Errors:    as the operations say; nothing is logged, because a command line may hold a password.
class ACE_Process_Ex : public ACE_Process
{
public:
  /// flags: Process_Flag bits. name: what to call the process in messages, null for the program's base name.
  /// cb: where the process's lines are logged; empty: wherever the calling thread logs.
  ACE_Process_Ex(unsigned int flags, const char* name, std::shared_ptr<ACE_Log_Msg_Callback> cb);
  ~ACE_Process_Ex() override;

  /// Starts the child: the options' argument list, environment, working directory, process group and handle
  /// inheritance count. The program is argument 0, searched in the child's PATH when it has no slash. Streams
  /// without a pipe are the options' handles, else /dev/null. The child has default SIGPIPE and SIGCHLD, an
  /// empty signal mask, and dies with this process (see die_with_parent). Returns its pid, or -1 with errno:
  /// also ENOENT, EACCES, ENOEXEC and the like of a program that cannot be executed, and ENOENT for an empty
  /// command line.
  pid_t spawn(ACE_Process_Options& options) override;

  /// Whether the child is killed when this process ends in whatever way. On, unless switched off before
  /// spawn; daemons must be started with it off.
  void die_with_parent(bool yes) { die_with_parent_ = yes; }

  /// Arguments to use in place of the options' command line, which splits at blanks and ends at 1023
  /// characters.
  void arguments(const std::vector<std::string>& argv) { arguments_ = argv; }

  unsigned int flags() const { return flags_; }
  /// The name given, else the base name of the program last spawned.
  const std::string& name() const { return name_; }
  const std::shared_ptr<ACE_Log_Msg_Callback>& callback() const { return callback_; }

  /// The parent's ends; -1 inside when the stream is no pipe. Take them with release() to outlive this
  /// object.
  kestrel::Auto_Fd& stdin_pipe() { return stdin_; }
  kestrel::Auto_Fd& stdout_pipe() { return stdout_; }
  kestrel::Auto_Fd& stderr_pipe() { return stderr_; }

private:
  const unsigned int flags_;
  std::string name_;
  const bool name_given_;
  std::shared_ptr<ACE_Log_Msg_Callback> callback_;
  bool die_with_parent_ = true;
  std::vector<std::string> arguments_;
  kestrel::Auto_Fd stdin_;
  kestrel::Auto_Fd stdout_;
  kestrel::Auto_Fd stderr_;
};

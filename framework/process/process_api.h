#pragma once

#include <string>
#include <sys/types.h>
#include <vector>

namespace kestrel
{
/// Everything the start of a child needs, computed before the fork.
struct Spawn_Request {
  std::vector<std::string> argv; ///< argv[0] included; must not be empty
  std::string program;           ///< with a slash: this file; else searched in the PATH of `environment`
  std::vector<std::string> environment; ///< the whole of it, NAME=value
  std::string working_directory;        ///< empty: this process's own
  int stdin_fd = -1;                    ///< not owned; -1: /dev/null
  int stdout_fd = -1;
  int stderr_fd = -1;
  bool close_others = true;    ///< nothing above 2 reaches the child; else what is not close-on-exec does
  pid_t process_group = -1;    ///< -1: this process's; 0: a new one with the child's pid; else that one
  bool die_with_parent = true; ///< SIGKILL to the child when this process ends
};

/// The system's side of child processes, so that tests can make a start fail.
/// Threads: any.
class Process_Api
{
public:
  virtual ~Process_Api();
  /// Starts a child. Its pid, or -1 with errno; an error of the child's side up to and including exec counts
  /// too, and no child is left then.
  virtual pid_t spawn(const Spawn_Request& request);
};

/// The one in use: the real one, unless a Scoped_Process_Api replaced it.
Process_Api& process_api();

/// Puts another one in place for the whole process until the scope ends. For tests; not owned, must outlive
/// the scope.
class Scoped_Process_Api
{
public:
  explicit Scoped_Process_Api(Process_Api& replacement);
  ~Scoped_Process_Api();
  Scoped_Process_Api(const Scoped_Process_Api&) = delete;
  Scoped_Process_Api& operator=(const Scoped_Process_Api&) = delete;

private:
  Process_Api* previous_;
};
} // namespace kestrel

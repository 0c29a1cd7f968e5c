#include "process/process_api.h"

#include "base/descriptor.h"
#include "base/ignore_result.h"
#include "process/spawner_thread.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <linux/close_range.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace kestrel
{
namespace
{
/// A Spawn_Request as the system calls want it, so that the child allocates nothing.
struct Prepared {
  std::vector<char*> argv;
  std::vector<char*> environment;
  std::vector<std::string> candidates; ///< the files to try, in this order
};

std::vector<char*> to_pointers(const std::vector<std::string>& texts)
{
  std::vector<char*> pointers;
  for (const std::string& text : texts)
    pointers.push_back(const_cast<char*>(text.c_str()));
  pointers.push_back(nullptr);
  return pointers;
}

std::string search_path(const std::vector<std::string>& environment)
{
  std::string path = "/usr/bin:/bin";
  for (const std::string& entry : environment)
    if (entry.compare(0, 5, "PATH=") == 0)
      path = entry.substr(5);
  return path;
}

Prepared prepare(const Spawn_Request& request)
{
  Prepared prepared;
  prepared.argv = to_pointers(request.argv);
  prepared.environment = to_pointers(request.environment);
  if (request.program.find('/') != std::string::npos) {
    prepared.candidates.push_back(request.program);
    return prepared;
  }
  const std::string path = search_path(request.environment);
  for (size_t begin = 0; begin <= path.size();) {
    const size_t end = std::min(path.find(':', begin), path.size());
    const std::string directory = path.substr(begin, end - begin);
    prepared.candidates.push_back((directory.empty() ? "." : directory) + "/" + request.program);
    begin = end + 1;
  }
  return prepared;
}

// From here to run_child: the child's side, between fork and exec. The threads of the parent do not exist
// here, and a lock that one of them held stays locked for ever, so only system calls are allowed: no
// allocation, no log, no stdio.

bool put_stream(int from, int target)
{
  const int fd = from >= 0 ? from : ::open("/dev/null", O_RDWR);
  if (fd < 0)
    return false;
  // dup2 drops the close-on-exec flag, unless both are the same descriptor.
  if (fd == target)
    return ::fcntl(fd, F_SETFD, 0) == 0;
  if (::dup2(fd, target) < 0)
    return false;
  if (from < 0)
    ::close(fd);
  return true;
}

void close_other_descriptors(int keep)
{
  const unsigned int first = STDERR_FILENO + 1;
  const unsigned int kept = static_cast<unsigned int>(keep);
#ifdef SYS_close_range
  if ((kept == first || ::syscall(SYS_close_range, first, kept - 1, 0) == 0) &&
      ::syscall(SYS_close_range, kept + 1, ~0U, 0) == 0)
    return;
#endif
  // A kernel without close_range. The product's own descriptors are all close-on-exec; this gets at foreign
  // ones.
  rlimit limit;
  const rlim_t most = 65536;
  const rlim_t count =
      ::getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < most ? limit.rlim_cur : most;
  for (unsigned int fd = first; fd < count; ++fd)
    if (fd != kept)
      ::close(static_cast<int>(fd));
}

void reset_signals()
{
  struct sigaction standard;
  ::memset(&standard, 0, sizeof standard);
  standard.sa_handler = SIG_DFL;
  for (int signal = 1; signal < NSIG; ++signal) {
    struct sigaction current;
    if (::sigaction(signal, nullptr, &current) != 0)
      continue;
    // exec resets handlers, but one could run between the unblocking below and exec. Ignored signals stay
    // ignored across exec, which is right for all but the two that the host or this layer changes.
    if (current.sa_handler != SIG_IGN || signal == SIGPIPE || signal == SIGCHLD)
      ::sigaction(signal, &standard, nullptr);
  }
  sigset_t none;
  ::sigemptyset(&none);
  ::sigprocmask(SIG_SETMASK, &none, nullptr);
}

/// Returns only when something failed, with errno.
void become_tool(const Spawn_Request& request, const Prepared& prepared, pid_t parent, int status_pipe)
{
  if (request.process_group >= 0 && ::setpgid(0, request.process_group) != 0)
    return;
  if (request.die_with_parent) {
    if (::prctl(PR_SET_PDEATHSIG, SIGKILL) != 0)
      return;
    // The parent may have gone before the line above.
    if (::getppid() != parent)
      ::_exit(127);
  }
  if (!put_stream(request.stdin_fd, STDIN_FILENO) || !put_stream(request.stdout_fd, STDOUT_FILENO) ||
      !put_stream(request.stderr_fd, STDERR_FILENO))
    return;
  if (request.close_others)
    close_other_descriptors(status_pipe);
  if (!request.working_directory.empty() && ::chdir(request.working_directory.c_str()) != 0)
    return;
  reset_signals();

  int error = ENOENT;
  for (const std::string& candidate : prepared.candidates) {
    ::execve(candidate.c_str(), prepared.argv.data(), prepared.environment.data());
    // As a shell does: go on searching, but say "not permitted" when that was met on the way.
    if (errno == EACCES)
      error = EACCES;
    else if (errno != ENOENT && errno != ENOTDIR)
      return;
  }
  errno = error;
}

[[noreturn]] void run_child(const Spawn_Request& request, const Prepared& prepared, pid_t parent,
                            int status_pipe)
{
  become_tool(request, prepared, parent, status_pipe);
  const int error = errno;
  ignore_result(::write(status_pipe, &error, sizeof error), "a parent that has gone needs no answer");
  ::_exit(127);
}

/// A process that ignores SIGCHLD (it may have inherited that) never learns how its children ended.
void keep_exit_statuses()
{
  struct sigaction action;
  if (::sigaction(SIGCHLD, nullptr, &action) != 0 ||
      (action.sa_handler != SIG_IGN && (action.sa_flags & SA_NOCLDWAIT) == 0))
    return;
  if (action.sa_handler == SIG_IGN)
    action.sa_handler = SIG_DFL;
  action.sa_flags &= ~SA_NOCLDWAIT;
  ::sigaction(SIGCHLD, &action, nullptr);
}

void reap(pid_t pid)
{
  while (::waitpid(pid, nullptr, 0) < 0 && errno == EINTR)
    continue;
}

pid_t fork_and_exec(const Spawn_Request& request)
{
  const Prepared prepared = prepare(request);
  Auto_Fd status_reader;
  Auto_Fd status_writer;
  if (make_pipe(status_reader, status_writer) != 0)
    return -1;

  // Signals wait until the child has an own program: a handler of this process must not run in it.
  sigset_t all;
  sigset_t previous;
  ::sigfillset(&all);
  ::pthread_sigmask(SIG_SETMASK, &all, &previous);
  const pid_t parent = ::getpid();
  const pid_t pid = ::fork();
  if (pid == 0)
    run_child(request, prepared, parent, status_writer.get());
  const int fork_error = errno;
  ::pthread_sigmask(SIG_SETMASK, &previous, nullptr);
  if (pid < 0) {
    errno = fork_error;
    return -1;
  }

  // End of file without a byte: exec closed the other end, so the program runs.
  status_writer.reset();
  int child_error = 0;
  if (read_write_trait::read_n(status_reader.get(), &child_error, sizeof child_error) !=
      static_cast<ssize_t>(sizeof child_error))
    return pid;
  reap(pid);
  errno = child_error;
  return -1;
}

Process_Api& real_process_api()
{
  // Never destroyed: detached threads may still start tools while the process ends.
  static Process_Api* const instance = new Process_Api;
  return *instance;
}

std::atomic<Process_Api*> replacement_process_api{nullptr};
} // namespace

Process_Api::~Process_Api() {}

pid_t Process_Api::spawn(const Spawn_Request& request)
{
  if (request.argv.empty() || request.program.empty()) {
    errno = ENOENT;
    return -1;
  }
  keep_exit_statuses();
  // The kernel counts the thread that forked as the parent: a child that is to die with this process must be
  // forked by a thread that lives as long as the process.
  return request.die_with_parent ? Spawner_Thread::instance().run([&] { return fork_and_exec(request); })
                                 : fork_and_exec(request);
}

Process_Api& process_api()
{
  Process_Api* const replacement = replacement_process_api.load(std::memory_order_acquire);
  return replacement ? *replacement : real_process_api();
}

Scoped_Process_Api::Scoped_Process_Api(Process_Api& replacement)
    : previous_(replacement_process_api.exchange(&replacement))
{
}

Scoped_Process_Api::~Scoped_Process_Api()
{
  replacement_process_api.store(previous_);
}
} // namespace kestrel

#include "lab/oscar/supervisor.h"

#include "lab/common/child.h"
#include "lab/common/server_control.h"
#include "lab/common/text.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace oscar_lab
{

namespace
{

// Recovery after a crash or a restore may have much log to read.
constexpr int start_timeout_msec = 600 * 1000;

[[noreturn]] void exec_supervisor(const Instance_Files& files, int message_fd)
{
  const std::string program = files.bin("oscar");
  ::setenv("OSCAR_READY_FD", std::to_string(message_fd).c_str(), 1);
  ::fcntl(message_fd, F_SETFD, 0);
  char* const argv[] = {const_cast<char*>(program.c_str()), const_cast<char*>("-d"),
                        const_cast<char*>(files.name.c_str()), nullptr};
  ::execv(program.c_str(), argv);
  ::_exit(127);
}

/// Parent of the supervisor for as long as that lives. A dead process stays in the process table until its
/// parent looks at it, and the init of a container may never do so; this process does at once, also for a
/// PostgreSQL server that outlives a killed supervisor.
[[noreturn]] void mind_supervisor(const Instance_Files& files, int message_fd)
{
  ::setsid();
  const int null = ::open("/dev/null", O_RDWR);
  const int log = ::open(files.log().c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0640);
  set_standard_descriptors(null, log < 0 ? null : log, log < 0 ? null : log, {message_fd});
  reset_signals();
  if (::chdir("/") != 0)
    ::_exit(1);
  ::prctl(PR_SET_CHILD_SUBREAPER, 1);
  ::prctl(PR_SET_NAME, "oscar-minder");
  const pid_t supervisor = ::fork();
  if (supervisor == 0)
    exec_supervisor(files, message_fd);
  ::close(message_fd);
  while (::waitpid(-1, nullptr, 0) > 0 || errno == EINTR) {
  }
  ::_exit(0);
}

std::string read_message(int fd)
{
  std::string message;
  for (;;) {
    pollfd waiting{fd, POLLIN, 0};
    const int got = ::poll(&waiting, 1, start_timeout_msec);
    if (got < 0 && errno == EINTR)
      continue;
    if (got == 0)
      return "no answer from the new server process";
    char buffer[1024];
    const ssize_t count = ::read(fd, buffer, sizeof buffer);
    if (count <= 0)
      return message;
    message.append(buffer, static_cast<std::size_t>(count));
    if (message == "ready\n")
      return message;
  }
}

/// The server that is there may still be at its recovery, or about to end. False when there is none any more.
bool wait_for_running_server(const Instance_Files& files)
{
  const auto settled = [&files] { return accepts_logins(files) || running_server(files) == 0; };
  if (!wait_until(settled, start_timeout_msec))
    throw Failure("the server of " + files.name + " takes no logins; see " + files.log());
  return running_server(files) != 0;
}

/// Starts a supervisor and returns what it says.
std::string start_supervisor(const Instance_Files& files)
{
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) != 0)
    fail_errno("cannot create a pipe");
  const Descriptor read_end(ends[0]);
  Descriptor write_end(ends[1]);
  std::fflush(nullptr);
  const pid_t minder = ::fork();
  if (minder < 0)
    fail_errno("cannot fork");
  if (minder == 0)
    mind_supervisor(files, write_end.get());
  write_end.reset();
  return read_message(read_end.get());
}

} // namespace

int launch(const Instance_Files& files)
{
  files.require_existing();
  std::string message;
  do {
    if (wait_for_running_server(files)) {
      std::printf("instance %s is already running\n", files.name.c_str());
      return 0;
    }
    message = start_supervisor(files);
  } while (message == already_running_message);
  if (message != "ready\n")
    throw Failure(message.empty() ? "instance " + files.name + " did not start; see " + files.log()
                                  : trim(message));
  std::printf("instance %s started\n", files.name.c_str());
  return 0;
}

} // namespace oscar_lab

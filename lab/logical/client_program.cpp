#include "lab/logical/client_program.h"

#include "lab/common/child.h"
#include "lab/common/text.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace oscar_lab
{

namespace
{

constexpr std::size_t kept_messages = 64 * 1024;

/// PATH and the login, and nothing of the caller: its own PG variables and locale would change what comes
/// out.
std::vector<std::string> environment_of(const Login& login)
{
  return {"PATH=/usr/bin:/bin", "LC_ALL=C", "PGHOST=" + login.host, "PGPORT=" + std::to_string(login.port),
          "PGUSER=" + login.user, "PGPASSWORD=" + login.password, "PGDATABASE=" + login.database,
          "PGCONNECT_TIMEOUT=" + std::to_string(login.timeout_seconds), "PGSSLMODE=disable",
          "PGGSSENCMODE=disable", "PGPASSFILE=/dev/null/none",
          // The server looks for a lost client, so that the session of a killed tool lets go of its locks.
          "PGOPTIONS=-c client_min_messages=warning -c client_connection_check_interval=1000"};
}

std::vector<char*> pointers(const std::vector<std::string>& texts)
{
  std::vector<char*> list;
  for (const std::string& text : texts)
    list.push_back(const_cast<char*>(text.c_str()));
  list.push_back(nullptr);
  return list;
}

} // namespace

Descriptor memory_file()
{
  Descriptor file(::memfd_create("text", MFD_CLOEXEC));
  if (!file.valid())
    fail_errno("cannot create a file in memory");
  return file;
}

std::string content_of(const Descriptor& file, std::size_t limit)
{
  std::string text;
  char buffer[8192];
  while (text.size() < limit) {
    const ssize_t count = ::pread(file.get(), buffer, std::min(sizeof buffer, limit - text.size()),
                                  static_cast<off_t>(text.size()));
    if (count < 0 && errno == EINTR)
      continue;
    if (count <= 0)
      break;
    text.append(buffer, static_cast<std::size_t>(count));
  }
  return text;
}

Client_Program::Client_Program(const std::string& name, const std::vector<std::string>& arguments,
                               const Login& login, int input, int output, const std::vector<int>& inherited)
    : name_(name), messages_(memory_file())
{
  std::vector<std::string> argv = {std::string(LAB_POSTGRES_BIN) + "/" + name};
  argv.insert(argv.end(), arguments.begin(), arguments.end());
  const std::vector<std::string> environment = environment_of(login);
  const std::vector<char*> argv_pointers = pointers(argv);
  const std::vector<char*> environment_pointers = pointers(environment);
  const Descriptor null = open_file("/dev/null", O_RDWR);
  const pid_t parent = ::getpid();
  pid_ = ::fork();
  if (pid_ < 0)
    fail_errno("cannot fork");
  if (pid_ != 0)
    return;
  reset_signals();
  ::signal(SIGXFSZ, SIG_IGN); // a limit on file sizes is an error with a message, not a silent death
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (::getppid() != parent)
    ::_exit(126);
  set_standard_descriptors(input < 0 ? null.get() : input, output < 0 ? null.get() : output, messages_.get(),
                           inherited);
  for (const int fd : inherited)
    ::fcntl(fd, F_SETFD, 0);
  ::execve(argv_pointers[0], argv_pointers.data(), environment_pointers.data());
  ::_exit(127);
}

bool Client_Program::wait()
{
  if (pid_ > 0) {
    while (::waitpid(pid_, &status_, 0) < 0 && errno == EINTR) {
    }
    pid_ = -1;
  }
  return WIFEXITED(status_) && WEXITSTATUS(status_) == 0;
}

void Client_Program::kill()
{
  if (pid_ <= 0)
    return;
  ::kill(pid_, SIGKILL);
  wait();
}

std::string Client_Program::messages() const
{
  return content_of(messages_, kept_messages);
}

std::string Client_Program::error() const
{
  const std::string text = messages();
  for (const char* const mark : {"FATAL:  ", "ERROR:  ", "PANIC:  "})
    if (text.find(mark) != std::string::npos)
      return primary_message(text);
  for (std::string line : split_lines(text)) {
    for (const std::string& prefix : {name_ + ": ", std::string("error: "), std::string("fatal: ")})
      if (starts_with(line, prefix))
        line = line.substr(prefix.size());
    if (!line.empty())
      return line;
  }
  if (WIFSIGNALED(status_))
    return name_ + " was ended by signal " + std::to_string(WTERMSIG(status_));
  return WEXITSTATUS(status_) == 127 ? "cannot run " + name_
                                     : name_ + " ended with status " + std::to_string(WEXITSTATUS(status_));
}

std::string path_of_inherited(int fd)
{
  return "/proc/self/fd/" + std::to_string(fd);
}

std::string output_of(const std::string& name, const std::vector<std::string>& arguments, const Login& login,
                      const std::vector<int>& inherited)
{
  constexpr std::size_t largest_listing = 256U << 20;
  const Descriptor output = memory_file();
  Client_Program program(name, arguments, login, -1, output.get(), inherited);
  if (!program.wait())
    throw Failure(program.error());
  return content_of(output, largest_listing);
}

} // namespace oscar_lab

#include "lab/common/child.h"

#include "lab/common/text.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace oscar_lab
{

namespace
{

std::vector<char*> pointers(const std::vector<std::string>& argv)
{
  std::vector<char*> list;
  for (const std::string& argument : argv)
    list.push_back(const_cast<char*>(argument.c_str()));
  list.push_back(nullptr);
  return list;
}

[[noreturn]] void exec_in_child(const std::vector<std::string>& argv, const Owner& owner, int output)
{
  const int null = ::open("/dev/null", O_RDWR);
  set_standard_descriptors(null, output, output, {});
  become(owner);
  // Callers may run under a locale that is not installed and with their own library path.
  ::unsetenv("LD_LIBRARY_PATH");
  ::unsetenv("LANG");
  ::setenv("LC_ALL", "C", 1);
  ::execv(argv[0].c_str(), pointers(argv).data());
  ::_exit(127);
}

bool may_enter(const struct stat& status, const Owner& owner)
{
  if (owner.uid == 0)
    return true;
  if (status.st_uid == owner.uid)
    return (status.st_mode & S_IXUSR) != 0;
  if (status.st_gid == owner.gid)
    return (status.st_mode & S_IXGRP) != 0;
  return (status.st_mode & S_IXOTH) != 0;
}

} // namespace

void reset_signals()
{
  for (int signal_number = 1; signal_number < NSIG; ++signal_number)
    ::signal(signal_number, SIG_DFL); // fails harmlessly for KILL, STOP and the reserved ones
  sigset_t none;
  ::sigemptyset(&none);
  ::sigprocmask(SIG_SETMASK, &none, nullptr);
}

void become(const Owner& owner)
{
  reset_signals();
  if (::geteuid() != 0)
    return;
  if (::setgroups(0, nullptr) != 0 || ::setresgid(owner.gid, owner.gid, owner.gid) != 0 ||
      ::setresuid(owner.uid, owner.uid, owner.uid) != 0)
    ::_exit(126);
}

void set_standard_descriptors(int in, int out, int error, const std::vector<int>& keep)
{
  // Copies first: a source may itself be one of 0, 1 and 2.
  const int sources[3] = {::fcntl(in, F_DUPFD, 10), ::fcntl(out, F_DUPFD, 10), ::fcntl(error, F_DUPFD, 10)};
  for (int i = 0; i < 3; ++i)
    if (sources[i] < 0 || ::dup2(sources[i], i) < 0)
      ::_exit(126);
  DIR* const directory = ::opendir("/proc/self/fd");
  if (!directory)
    ::_exit(126);
  std::vector<int> open_now;
  while (const dirent* const entry = ::readdir(directory))
    if (entry->d_name[0] != '.')
      open_now.push_back(std::atoi(entry->d_name));
  ::closedir(directory);
  for (const int fd : open_now) {
    bool kept = fd <= 2;
    for (const int wanted : keep)
      kept = kept || fd == wanted;
    if (!kept)
      ::close(fd);
  }
}

Child_Result run_child(const std::vector<std::string>& argv, const Owner& owner)
{
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) != 0)
    fail_errno("cannot create a pipe");
  const Descriptor read_end(ends[0]);
  Descriptor write_end(ends[1]);
  const pid_t pid = ::fork();
  if (pid < 0)
    fail_errno("cannot fork");
  if (pid == 0)
    exec_in_child(argv, owner, write_end.get());
  write_end.reset();

  Child_Result result;
  char buffer[4096];
  while (const std::size_t count = read_full(read_end.get(), buffer, sizeof buffer, argv[0]))
    result.output.append(buffer, count);
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  if (result.status == 127 && result.output.empty())
    throw Failure("cannot run " + argv[0]);
  return result;
}

Owner service_owner(const std::string& account_name)
{
  if (::geteuid() != 0)
    return Owner{::geteuid(), ::getegid()};
  const passwd* const account = ::getpwnam(account_name.c_str());
  if (!account)
    throw Failure("there is no account " + account_name + " on this host");
  if (account->pw_uid == 0)
    throw Failure("the server cannot run as root; name another account");
  return Owner{account->pw_uid, account->pw_gid};
}

std::string first_closed_directory(const std::string& path, const Owner& owner)
{
  for (std::size_t slash = 1; slash != std::string::npos;) {
    slash = path.find('/', slash);
    const std::string directory = path.substr(0, slash);
    if (slash != std::string::npos)
      ++slash;
    struct stat status;
    if (::stat(directory.c_str(), &status) == 0 && !may_enter(status, owner))
      return directory;
  }
  return {};
}

} // namespace oscar_lab

#include "lab/oscar/supervisor.h"

#include "lab/common/chain_file.h"
#include "lab/common/child.h"
#include "lab/common/instance_lock.h"
#include "lab/common/pending_restore.h"
#include "lab/common/server_control.h"
#include "lab/common/set_notes.h"
#include "lab/common/swap_journal.h"
#include "lab/common/text.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace oscar_lab
{

namespace
{

constexpr int lock_timeout_msec = 6 * 1000;

/// A node of a cluster also answers on its own address, and on the virtual one whenever it holds that.
/// Binding an address that the host does not have needs net.ipv4.ip_nonlocal_bind; without it the server
/// leaves it out.
std::string listen_addresses(const Instance_Conf& conf)
{
  std::string addresses = "127.0.0.1";
  for (const std::string& address : {conf.node_address, conf.virtual_address})
    if (!address.empty())
      addresses += "," + address;
  return addresses;
}

std::vector<std::string> server_command(const Instance_Files& files, const Instance_Conf& conf)
{
  // Paths relative to the data directory, where the server works: no length limit, nothing to quote.
  return {std::string(LAB_POSTGRES_BIN) + "/postgres", "-D", files.data(), "-c",
          "port=" + std::to_string(conf.port), "-c", "oscar.instance=" + files.name, "-c",
          "listen_addresses=" + listen_addresses(conf), "-c", "recovery_init_sync_method=syncfs", "-c",
          "unix_socket_directories=../run", "-c",
          std::string("archive_mode=") + (conf.archive_log ? "on" : "off"), "-c",
          // Offline backups find changed pages by their position in the log; without this some changes leave
          // none.
          std::string("wal_log_hints=") + (conf.archive_log ? "off" : "on"), "-c",
          "archive_command=cp %p ../archive/%f.part && mv ../archive/%f.part ../archive/%f"};
}

[[noreturn]] void run_server(const Instance_Files& files, const Instance_Conf& conf, const Owner& owner,
                             int lock_fd, pid_t supervisor)
{
  const std::vector<std::string> command = server_command(files, conf);
  const int null = ::open("/dev/null", O_RDONLY);
  const int log = ::open(files.log().c_str(), O_WRONLY | O_CREAT | O_APPEND, 0640);
  // The lock goes along: it is free again only when the last process of the server is gone.
  set_standard_descriptors(null, log, log, {lock_fd});
  ::fcntl(lock_fd, F_SETFD, 0);
  ::umask(0077);
  become(owner);
  // After the change of the account, which clears it. SIGQUIT makes the server stop at once.
  ::prctl(PR_SET_PDEATHSIG, SIGQUIT);
  if (::getppid() != supervisor)
    ::_exit(1);
  for (const char* const name : {"LD_LIBRARY_PATH", "LC_ALL", "LANG", "PGDATA", "PGOPTIONS"})
    ::unsetenv(name);
  std::vector<char*> argv;
  for (const std::string& word : command)
    argv.push_back(const_cast<char*>(word.c_str()));
  argv.push_back(nullptr);
  ::execv(argv[0], argv.data());
  std::perror("postgres");
  ::_exit(127);
}

void check_data_directory(const Instance_Files& files)
{
  files.require_existing();
  if (is_regular_file(files.incomplete_mark()))
    throw Failure("the data of " + files.name +
                  " are not usable: " + trim(read_file(files.incomplete_mark())));
  if (!is_regular_file(files.data() + "/PG_VERSION") || !is_regular_file(files.data() + "/global/pg_control"))
    throw Failure("the data directory " + files.data() + " is incomplete");
}

/// Waits for the end of the server, passing stop requests on. The signals are blocked in this process.
int wait_for_server(const Instance_Files& files, pid_t server, const sigset_t& signals, int ready_fd)
{
  bool ready = false;
  bool stopping = false;
  for (;;) {
    const timespec poll{0, 20 * 1000 * 1000};
    siginfo_t info;
    const int signal_number = ready ? ::sigwaitinfo(&signals, &info) : ::sigtimedwait(&signals, &info, &poll);
    if (signal_number == SIGTERM || signal_number == SIGINT) {
      stopping = true;
      ::kill(server, SIGINT);
    }
    int status = 0;
    if (::waitpid(server, &status, WNOHANG) == server) {
      // A stop that comes before the server can handle signals simply ends it; it had not begun anything
      // then.
      if (stopping && WIFSIGNALED(status) && WTERMSIG(status) == SIGINT)
        return 0;
      return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
    }
    if (!ready && accepts_logins(files)) {
      ready = true;
      if (ready_fd >= 0 && ::write(ready_fd, "ready\n", 6) == 6)
        ::close(ready_fd);
    }
  }
}

} // namespace

namespace
{

/// Into the server's log: whether the data are the ones from before a restore is not seen otherwise.
void settle_and_tell(const Instance_Files& files)
{
  Pending_Restore pending;
  std::string what;
  if (read_pending(files, pending))
    what = " (backup " + pending.id + ")";
  const Settled settled = settle_restore(files);
  if (settled == Settled::in_place)
    std::fprintf(stderr, "oscar: the restored data of %s%s are in place\n", files.name.c_str(), what.c_str());
  else if (settled == Settled::dropped)
    std::fprintf(stderr, "oscar: a restore of %s was cut off; the data from before it stay\n",
                 files.name.c_str());
}

/// A server that runs without archive logging drops log that backups of the other mode would continue with,
/// and one that runs with it does not mark pages as the others need it. So the chain of backups ends here.
void end_chain_of_other_mode(const Instance_Files& files, const Instance_Conf& conf)
{
  const Chain chain = read_chain(files);
  if (!chain.complete())
    return;
  try {
    if (read_notes(files, chain.last_full.id).mode == (conf.archive_log ? "online" : "offline"))
      return;
  } catch (const Failure&) {
    return; // brcmd will say what is wrong
  }
  forget_chain(files);
  remove_notes_except(files, {});
  std::fprintf(stderr, "oscar: archive logging of %s was switched; the next backup must be a full one\n",
               files.name.c_str());
}

} // namespace

int supervise(const Instance_Files& files, int ready_fd)
{
  const Instance_Lock lock(files, use_of_server, lock_timeout_msec);
  if (lock.state() == Instance_Lock::State::server_runs)
    throw Already_Running("instance " + files.name + " is already running");
  if (lock.state() != Instance_Lock::State::held)
    throw Failure("instance " + files.name + " is in use by a server, a backup or a restore");
  settle_and_tell(files);
  check_data_directory(files);
  const Instance_Conf conf = read_conf(files);
  end_chain_of_other_mode(files, conf);
  const Owner owner = owner_of(files.data());
  if (owner.uid == 0)
    throw Failure("the server cannot run as root; give " + files.data() + " to another account");

  sigset_t signals;
  ::sigemptyset(&signals);
  for (const int signal_number : {SIGTERM, SIGINT, SIGCHLD})
    ::sigaddset(&signals, signal_number);
  ::sigprocmask(SIG_BLOCK, &signals, nullptr);

  const pid_t self = ::getpid();
  const pid_t server = ::fork();
  if (server < 0)
    fail_errno("cannot fork");
  if (server == 0)
    run_server(files, conf, owner, lock.fd(), self);
  replace_volatile_file(files.pid_file(), std::to_string(self) + "\n", 0644);
  const int status = wait_for_server(files, server, signals, ready_fd);
  ::unlink(files.pid_file().c_str());
  if (status != 0)
    throw Failure("the server of " + files.name + " ended with status " + std::to_string(status) + "; see " +
                  files.log());
  return 0;
}

} // namespace oscar_lab

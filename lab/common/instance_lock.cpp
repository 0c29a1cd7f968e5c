#include "lab/common/instance_lock.h"

#include "lab/common/server_control.h"
#include "lab/common/text.h"

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

namespace oscar_lab
{

const char* const use_of_server = "server";

Instance_Lock::Instance_Lock(const Instance_Files& files, const char* use, int timeout_msec,
                             int remains_timeout_msec)
    : fd_(open_file(files.lock(), O_RDWR | O_CREAT, 0640))
{
  for (int waited_msec = 0; !try_to_take(); waited_msec += 20) {
    // A stale pid file may hold the number that this process happens to have got.
    const pid_t server = running_server(files);
    if (server != 0 && server != ::getpid()) {
      state_ = State::server_runs;
      return;
    }
    if (waited_msec >= (is_of_server() ? std::max(timeout_msec, remains_timeout_msec) : timeout_msec))
      return;
    const timespec pause{0, 20 * 1000 * 1000};
    ::nanosleep(&pause, nullptr);
  }
  const std::string text = std::string(use) + "\n";
  if (::ftruncate(fd_.get(), 0) != 0 || ::pwrite(fd_.get(), text.data(), text.size(), 0) < 0)
    fail_errno("cannot write " + files.lock());
  state_ = State::held;
}

bool Instance_Lock::try_to_take()
{
  if (::flock(fd_.get(), LOCK_EX | LOCK_NB) == 0)
    return true;
  if (errno != EWOULDBLOCK && errno != EINTR)
    fail_errno("cannot lock an instance");
  return false;
}

bool Instance_Lock::is_of_server() const
{
  char text[16];
  const ssize_t count = ::pread(fd_.get(), text, sizeof text, 0);
  return count > 0 && trim(std::string(text, static_cast<std::size_t>(count))) == use_of_server;
}

} // namespace oscar_lab

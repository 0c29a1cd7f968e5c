#include "agent/service_signals.h"

#include "base/ignore_result.h"

#include <atomic>
#include <cerrno>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace kestrel
{
namespace
{
// Lock-free on every supported processor, so that handlers may use them.
std::atomic<unsigned> termination_count{0};
std::atomic<bool> reload_wanted{false};
std::atomic<int> wake_fd{-1};
static_assert(std::atomic<unsigned>::is_always_lock_free && std::atomic<int>::is_always_lock_free,
              "signal handlers");

const int handled[] = {SIGTERM, SIGINT, SIGHUP};

void write_wake()
{
  const uint64_t one = 1;
  const int fd = wake_fd.load();
  if (fd >= 0)
    ignore_result(::write(fd, &one, sizeof one), "a full counter wakes just as well");
}

void note_signal(int number)
{
  const int saved = errno;
  if (number == SIGHUP)
    reload_wanted = true;
  else
    ++termination_count;
  write_wake();
  errno = saved;
}
} // namespace

bool Service_Signals::install()
{
  termination_count = 0;
  reload_wanted = false;
  const int fd = above_stdio(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  if (fd < 0)
    return false;
  wake_fd = fd;
  installed_ = true;
  struct sigaction action = {};
  action.sa_handler = note_signal;
  action.sa_flags = SA_RESTART;
  for (size_t i = 0; i < sizeof handled / sizeof handled[0]; ++i)
    if (::sigaction(handled[i], &action, &previous_[i]) != 0)
      return false;
  return ::signal(SIGPIPE, SIG_IGN) != SIG_ERR;
}

Service_Signals::~Service_Signals()
{
  if (!installed_)
    return;
  for (size_t i = 0; i < sizeof handled / sizeof handled[0]; ++i)
    ::sigaction(handled[i], &previous_[i], nullptr);
  ::close(wake_fd.exchange(-1));
}

void Service_Signals::wait(int64_t msec)
{
  pollfd waiting = {wake_fd.load(), POLLIN, 0};
  uint64_t count = 0;
  if (::poll(&waiting, 1, static_cast<int>(msec)) > 0)
    ignore_result(::read(waiting.fd, &count, sizeof count), "only empties the counter");
}

void Service_Signals::wake()
{
  write_wake();
}

unsigned Service_Signals::terminations() const
{
  return termination_count.load();
}

bool Service_Signals::take_reload()
{
  return reload_wanted.exchange(false);
}
} // namespace kestrel

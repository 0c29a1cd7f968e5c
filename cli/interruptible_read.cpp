#include "cli/interruptible_read.h"

#include "base/ignore_result.h"

#include <atomic>
#include <cerrno>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

namespace kestrel
{
namespace
{
std::atomic<bool> signaled{false};
/// A signal that comes between a look at `signaled` and the wait would be missed; a byte in a pipe is not.
int wake_pipe[2] = {-1, -1};

void note_signal(int)
{
  const int before = errno;
  signaled = true;
  ignore_result(::write(wake_pipe[1], "", 1), "a pipe that is full wakes as well");
  errno = before;
}
} // namespace

Interruptible_Read::Interruptible_Read()
{
  signaled = false;
  if (::pipe2(wake_pipe, O_CLOEXEC | O_NONBLOCK) != 0)
    wake_pipe[0] = wake_pipe[1] = -1; // the signal itself still ends most waits
  struct sigaction action = {};
  action.sa_handler = note_signal;
  ::sigaction(SIGINT, &action, &interrupt_);
  ::sigaction(SIGTERM, &action, &terminate_);
}

Interruptible_Read::~Interruptible_Read()
{
  ::sigaction(SIGINT, &interrupt_, nullptr);
  ::sigaction(SIGTERM, &terminate_, nullptr);
  for (int& end : wake_pipe) {
    if (end >= 0)
      ::close(end);
    end = -1;
  }
}

ssize_t Interruptible_Read::read(int descriptor, void* buffer, size_t size)
{
  while (!signaled) {
    struct pollfd waits[] = {{descriptor, POLLIN, 0}, {wake_pipe[0], POLLIN, 0}};
    if (::poll(waits, 2, -1) < 0 && errno != EINTR)
      return -1;
    if (signaled || waits[0].revents == 0)
      continue;
    const ssize_t count = ::read(descriptor, buffer, size);
    if (count >= 0 || errno != EINTR)
      return count;
  }
  errno = EINTR;
  return -1;
}
} // namespace kestrel

#include "agent/systemd_notify.h"

#include "base/descriptor.h"
#include "base/files.h"

#include <ace/Log_Msg.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <vector>

namespace kestrel
{
namespace
{
/// One message may not hold a line end inside a value: it would begin another assignment.
std::string one_line(std::string text)
{
  std::replace(text.begin(), text.end(), '\n', ' ');
  return text;
}

bool all_digits(const std::string& text)
{
  return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

/// 0 for what is no number or is too large to be meant.
uint64_t number_or_zero(const std::string& text)
{
  return all_digits(text) && text.size() <= 18 ? std::strtoull(text.c_str(), nullptr, 10) : 0;
}

/// False with EINVAL or ENAMETOOLONG for a name that is none.
bool socket_address(const std::string& name, sockaddr_un& address, socklen_t& length)
{
  const bool abstract = !name.empty() && name[0] == '@';
  if (name.size() < 2 || (!abstract && name[0] != '/')) {
    errno = EINVAL;
    return false;
  }
  // A path needs its terminating zero; an abstract name is as long as the length says.
  if (name.size() + (abstract ? 0 : 1) > sizeof address.sun_path) {
    errno = ENAMETOOLONG;
    return false;
  }
  address = sockaddr_un{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, name.data(), name.size());
  if (abstract)
    address.sun_path[0] = '\0';
  length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size() + (abstract ? 0 : 1));
  return true;
}

bool send_datagram(const std::string& name, const std::string& message)
{
  sockaddr_un address;
  socklen_t length = 0;
  if (!socket_address(name, address, length))
    return false;
  Auto_Fd socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (socket.get() < 0)
    return false;
  // A service manager that does not read must not hold the process up for ever.
  const timeval limit = {5, 0};
  if (::setsockopt(socket.get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit) != 0)
    return false;
  ssize_t sent;
  do {
    sent = ::sendto(socket.get(), message.data(), message.size(), MSG_NOSIGNAL,
                    reinterpret_cast<const sockaddr*>(&address), length);
  } while (sent < 0 && errno == EINTR);
  return sent == static_cast<ssize_t>(message.size());
}
} // namespace

Service_Notifier Service_Notifier::from_environment()
{
  const std::string socket = get_env_r("NOTIFY_SOCKET");
  const std::string pid = get_env_r("WATCHDOG_PID");
  uint64_t usec = number_or_zero(get_env_r("WATCHDOG_USEC"));
  // Meant for another process of the service.
  if (!pid.empty() && number_or_zero(pid) != static_cast<uint64_t>(::getpid()))
    usec = 0;
  for (const char* name : {"NOTIFY_SOCKET", "WATCHDOG_PID", "WATCHDOG_USEC"})
    ::unsetenv(name);
  return Service_Notifier(socket, usec);
}

Service_Notifier::Service_Notifier(std::string socket, uint64_t watchdog_usec)
    : socket_(std::move(socket)),
      feed_msec_(watchdog_usec == 0 ? 0 : std::max<int64_t>(1, static_cast<int64_t>(watchdog_usec / 2000)))
{
}

Service_Notifier::Service_Notifier(const Service_Notifier& other)
    : socket_(other.socket_), feed_msec_(other.feed_msec_)
{
}

Service_Notifier& Service_Notifier::operator=(const Service_Notifier& other)
{
  socket_ = other.socket_;
  feed_msec_ = other.feed_msec_;
  warned_ = false;
  return *this;
}

bool Service_Notifier::ready(const std::string& status) const
{
  return send("READY=1\nSTATUS=" + one_line(status));
}

bool Service_Notifier::status(const std::string& status) const
{
  return send("STATUS=" + one_line(status));
}

bool Service_Notifier::reloading() const
{
  // The time lets the service manager tell this reload from one before.
  timespec now = {};
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  const uint64_t usec =
      static_cast<uint64_t>(now.tv_sec) * 1000000 + static_cast<uint64_t>(now.tv_nsec) / 1000;
  return send("RELOADING=1\nMONOTONIC_USEC=" + std::to_string(usec));
}

bool Service_Notifier::stopping(const std::string& status) const
{
  return send("STOPPING=1\nSTATUS=" + one_line(status));
}

bool Service_Notifier::extend(int64_t msec) const
{
  return send("EXTEND_TIMEOUT_USEC=" + std::to_string(msec * 1000));
}

bool Service_Notifier::watchdog() const
{
  return send("WATCHDOG=1");
}

bool Service_Notifier::send(const std::string& message) const
{
  if (socket_.empty())
    return true;
  if (send_datagram(socket_, message))
    return true;
  const int error_number = errno;
  const std::lock_guard<std::mutex> guard(mutex_);
  if (!warned_)
    ACE_ERROR((LM_WARNING, "The service manager cannot be told at %C: %C\n", socket_.c_str(),
               std::strerror(error_number)));
  warned_ = true;
  return false;
}

void Watchdog::start()
{
  if (notifier_.active() && notifier_.feed_msec() > 0 && !thread_.joinable())
    thread_ = std::thread([this] { run(); });
}

void Watchdog::stop()
{
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    stop_ = true;
  }
  wake_.notify_all();
  if (thread_.joinable())
    thread_.join();
}

bool Watchdog::feed()
{
  const std::vector<std::string> stuck = heartbeats_.stuck();
  if (stuck.empty()) {
    hungry_ = false;
    return notifier_.watchdog();
  }
  std::string names;
  for (const std::string& name : stuck)
    names += (names.empty() ? "" : ", ") + name;
  if (!hungry_)
    ACE_ERROR((LM_ERROR, "The watchdog is not fed any more, stuck: %C\n", names.c_str()));
  hungry_ = true;
  return false;
}

void Watchdog::run()
{
  std::unique_lock<std::mutex> lock(mutex_);
  while (!stop_) {
    lock.unlock();
    feed();
    lock.lock();
    // Real time: the service manager's clock is no test's.
    wake_.wait_for(lock, std::chrono::milliseconds(notifier_.feed_msec()), [this] { return stop_; });
  }
}
} // namespace kestrel

#pragma once

#include "base/heartbeat.h"

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

namespace kestrel
{
/// Tells the service manager that started this process how it stands: one datagram a message to the socket
/// that $NOTIFY_SOCKET names (a path, or with '@' in front an abstract name). Without one every call does
/// nothing.
/// Threads: const operations from any thread.
/// Errors:  true when the message was taken, and when nobody asked for any; a failure is logged once as a
///          warning, since a service manager that is gone would otherwise fill the log.
class Service_Notifier
{
public:
  Service_Notifier() = default;
  /// Takes the variables over and removes them from the environment, so that the tools that jobs start do not
  /// speak in this process's name. Call it before the first thread.
  [[nodiscard]] static Service_Notifier from_environment();
  /// `socket` empty: nobody listens. `watchdog_usec` 0: nobody watches.
  Service_Notifier(std::string socket, uint64_t watchdog_usec);
  Service_Notifier(const Service_Notifier& other);
  Service_Notifier& operator=(const Service_Notifier& other);

  bool active() const { return !socket_.empty(); }
  /// How often the service manager must be fed: half of what it waits for. 0 when it does not watch.
  int64_t feed_msec() const { return feed_msec_; }

  bool ready(const std::string& status) const;
  bool status(const std::string& status) const;
  /// Between this and the next ready() the service manager shows a reload.
  bool reloading() const;
  bool stopping(const std::string& status) const;
  /// Asks for so much more time than the unit allows, from now on, for the start, reload or stop under way.
  bool extend(int64_t msec) const;
  bool watchdog() const;

private:
  bool send(const std::string& message) const;

  std::string socket_;
  int64_t feed_msec_ = 0;
  mutable std::mutex mutex_;
  mutable bool warned_ = false;
};

/// Feeds the service manager's watchdog as long as no loop is stuck; once one is, it says which and feeds no
/// more, so that the service manager ends and restarts the process. A loop that turns again is fed again.
/// Threads:   start() and stop() on one thread; the feeding is done on a thread of its own.
/// Ownership: notifier and heartbeats are not owned and must outlive it.
class Watchdog
{
public:
  Watchdog(const Service_Notifier& notifier, const Heartbeats& heartbeats)
      : notifier_(notifier), heartbeats_(heartbeats)
  {
  }
  ~Watchdog() { stop(); }
  Watchdog(const Watchdog&) = delete;
  Watchdog& operator=(const Watchdog&) = delete;

  /// Starts no thread when nobody watches.
  void start();
  void stop();
  /// Looks once; true when it fed. For the thread, and for tests.
  bool feed();

private:
  void run();

  const Service_Notifier& notifier_;
  const Heartbeats& heartbeats_;
  std::mutex mutex_;
  std::condition_variable wake_;
  bool stop_ = false;
  bool hungry_ = false; ///< the last look found a stuck loop
  std::thread thread_;
};
} // namespace kestrel

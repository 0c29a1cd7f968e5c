#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace kestrel
{
/// Whether every loop of a process still turns. Each loop reports at least once in its limit; a loop that waits for
/// something without an end of its own (a person, a tool, a job) must not report through here, unless it wakes up
/// meanwhile: what reports is the loop, not the work that it looks after.
/// Threads: any.
/// Units:   milliseconds of kestrel::clock()'s monotonic time, so a host that sleeps makes no loop late.
class Heartbeats
{
public:
  /// The number to report with, never given twice. The loop counts as having reported now.
  size_t add(const std::string& name, int64_t limit_msec);
  /// Of a loop that has ended: nothing happens.
  void beat(size_t loop);
  /// No longer watched; used when a loop ends as it should.
  void end(size_t loop);
  /// Names of the loops that have not reported in time, in the order of their adding.
  std::vector<std::string> stuck() const;

private:
  struct Loop {
    std::string name;
    int64_t limit_msec = 0;
    int64_t last_msec = 0;
  };
  mutable std::mutex mutex_;
  std::map<size_t, Loop> loops_;
  size_t next_ = 0;
};

/// One loop among the heartbeats, from its beginning to its end: make it where the loop begins, on the loop's own
/// thread or before it is started, and beat once a turn.
/// Threads:   beat() on the loop's thread; the object begins and ends while no beat() goes on.
/// Ownership: the heartbeats are not owned and must outlive it; null: nobody watches, and every call does nothing.
class Heartbeat
{
public:
  Heartbeat(Heartbeats* heartbeats, const std::string& name, int64_t limit_msec);
  ~Heartbeat();
  Heartbeat(const Heartbeat&) = delete;
  Heartbeat& operator=(const Heartbeat&) = delete;

  void beat();

private:
  Heartbeats* const heartbeats_;
  const size_t loop_;
};
} // namespace kestrel

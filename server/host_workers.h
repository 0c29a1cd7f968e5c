#pragma once

#include <functional>
#include <memory>
#include <string>

namespace kestrel
{
class Heartbeats;

/// Runs tasks that wait for hosts on a few threads: in order for each host, with a limit for each host, so
/// that one that hangs holds up nobody but itself.
/// Threads: any. stop() drops what has not begun, waits for what has, and may be called twice; tasks added
///          after it are dropped.
/// Errors:  a task must not throw; what it throws is logged and dropped.
class Host_Workers
{
public:
  Host_Workers(unsigned threads, unsigned per_host);
  ~Host_Workers(); ///< stops
  Host_Workers(const Host_Workers&) = delete;
  Host_Workers& operator=(const Host_Workers&) = delete;

  /// Before the first task: `heartbeats` hears of it while a task waits that a thread could begin. It counts
  /// as stuck when none was begun for 15 minutes, not when single hosts hang. Null: nobody watches; else not
  /// owned, and must outlive stop().
  void watch(Heartbeats* heartbeats, const std::string& name);
  void add(const std::string& host_uuid, std::function<void()> task);
  void stop();

private:
  struct State;
  const std::unique_ptr<State> state_;
};
} // namespace kestrel

#pragma once

#include <functional>
#include <memory>
#include <string>

namespace kestrel
{
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

  void add(const std::string& host_uuid, std::function<void()> task);
  void stop();

private:
  struct State;
  const std::unique_ptr<State> state_;
};
} // namespace kestrel

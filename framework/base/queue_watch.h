#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace kestrel
{
class Heartbeats;

/// Whether a queue that several threads take tasks from is still served. It stands among the heartbeats only
/// while a task waits that a thread could take, and reports whenever one is taken. So neither a long task,
/// nor a long queue, nor a queue without work counts as stuck: only that tasks wait and none begins for the
/// whole limit. Then all threads hang, or sleep through their call. Threads:   the queue's lock, which is
/// held for every call. Ownership: the heartbeats are not owned; begin() with null, or none, and every call
/// does nothing. Units:     milliseconds. The limit must be longer than the longest task: all threads may
/// begin one together.
class Queue_Watch
{
public:
  Queue_Watch() = default;
  ~Queue_Watch() { end(); }
  Queue_Watch(const Queue_Watch&) = delete;
  Queue_Watch& operator=(const Queue_Watch&) = delete;

  void begin(Heartbeats* heartbeats, const std::string& name, int64_t limit_msec);
  /// No longer watched, and the heartbeats may go.
  void end();
  /// The queue may have changed.
  void look(bool waits);
  /// A thread took one; `waits`: another one could be taken.
  void taken(bool waits);

private:
  Heartbeats* heartbeats_ = nullptr;
  std::string name_;
  int64_t limit_msec_ = 0;
  bool watched_ = false;
  size_t loop_ = 0;
};
} // namespace kestrel

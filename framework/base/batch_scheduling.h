#pragma once

namespace kestrel
{
/// Makes the calling thread batch work for the scheduler: it gets its share of the processor as before, but
/// waking up it does not push another thread aside. Threads and children that it starts inherit that. Only
/// system calls, so it may be called between fork and exec. False when the thread has a policy of its own
/// already (an administrator's choice stays) or the system refuses; nothing depends on it then but speed.
[[nodiscard]] bool enter_batch_scheduling();

/// Keeps the calling thread batch work for the length of a scope; afterwards it is an ordinary thread again.
///
/// For threads and tools that pass a stream on in many small steps: each step wakes the next one in the row,
/// and each such wake-up would otherwise throw a compressing thread, or a database, off its processor.
///
/// Threads:   made and destroyed by the same thread.
/// Ownership: threads started in the scope stay batch work after it.
/// Errors:    none: see enter_batch_scheduling().
class Batch_Scheduling
{
public:
  Batch_Scheduling();
  ~Batch_Scheduling();
  Batch_Scheduling(const Batch_Scheduling&) = delete;
  Batch_Scheduling& operator=(const Batch_Scheduling&) = delete;

private:
  const bool entered_;
};
} // namespace kestrel

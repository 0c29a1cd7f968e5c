#pragma once

#include "agent/agent_jobs.h"

#include <cstddef>
#include <list>
#include <map>
#include <mutex>
#include <string>

namespace kestrel
{
/// What the server is still to be told of jobs: at most one notice for each job, the newest. A job keeps its
/// place in the row, so that one that changes all the time does not keep others waiting, nor waits itself for
/// ever.
/// Threads: any.
/// Errors:  beyond the limit the job that waits longest is dropped; the server hears of it with the next
///          change or the next connection.
class State_Outbox
{
public:
  static constexpr size_t default_limit = 10000;

  explicit State_Outbox(size_t limit = default_limit) : limit_(limit) {}

  void put(const Job_Notice& notice);
  /// The notice that waits longest. False when there is none.
  [[nodiscard]] bool take(Job_Notice& notice);
  void clear();
  size_t size() const;

private:
  void forget_oldest();

  typedef std::list<Job_Notice> Row;
  mutable std::mutex mutex_;
  const size_t limit_;
  Row row_;
  std::map<std::string, Row::iterator> by_job_;
};
} // namespace kestrel

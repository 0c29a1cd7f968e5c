#include "agent/state_outbox.h"

namespace kestrel
{
void State_Outbox::put(const Job_Notice& notice)
{
  const std::lock_guard<std::mutex> guard(mutex_);
  const auto waiting = by_job_.find(notice.id);
  if (waiting != by_job_.end()) {
    *waiting->second = notice;
    return;
  }
  if (row_.size() >= limit_)
    forget_oldest();
  by_job_[notice.id] = row_.insert(row_.end(), notice);
}

bool State_Outbox::take(Job_Notice& notice)
{
  const std::lock_guard<std::mutex> guard(mutex_);
  if (row_.empty())
    return false;
  notice = row_.front();
  forget_oldest();
  return true;
}

void State_Outbox::clear()
{
  const std::lock_guard<std::mutex> guard(mutex_);
  row_.clear();
  by_job_.clear();
}

size_t State_Outbox::size() const
{
  const std::lock_guard<std::mutex> guard(mutex_);
  return row_.size();
}

void State_Outbox::forget_oldest()
{
  by_job_.erase(row_.front().id);
  row_.pop_front();
}
} // namespace kestrel

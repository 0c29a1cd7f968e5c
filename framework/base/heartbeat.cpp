#include "base/heartbeat.h"

#include "base/clock.h"

namespace kestrel
{
size_t Heartbeats::add(const std::string& name, int64_t limit_msec)
{
  const std::lock_guard<std::mutex> guard(mutex_);
  Loop loop;
  loop.name = name;
  loop.limit_msec = limit_msec;
  loop.last_msec = clock().monotonic_msec();
  loops_.emplace(next_, loop);
  return next_++;
}

void Heartbeats::beat(size_t loop)
{
  const std::lock_guard<std::mutex> guard(mutex_);
  const auto found = loops_.find(loop);
  if (found != loops_.end())
    found->second.last_msec = clock().monotonic_msec();
}

void Heartbeats::end(size_t loop)
{
  const std::lock_guard<std::mutex> guard(mutex_);
  loops_.erase(loop);
}

std::vector<std::string> Heartbeats::stuck() const
{
  const std::lock_guard<std::mutex> guard(mutex_);
  const int64_t now = clock().monotonic_msec();
  std::vector<std::string> names;
  for (const auto& each : loops_)
    if (now - each.second.last_msec > each.second.limit_msec)
      names.push_back(each.second.name);
  return names;
}

Heartbeat::Heartbeat(Heartbeats* heartbeats, const std::string& name, int64_t limit_msec)
    : heartbeats_(heartbeats), loop_(heartbeats ? heartbeats->add(name, limit_msec) : 0)
{
}

Heartbeat::~Heartbeat()
{
  if (heartbeats_)
    heartbeats_->end(loop_);
}

void Heartbeat::beat()
{
  if (heartbeats_)
    heartbeats_->beat(loop_);
}
} // namespace kestrel

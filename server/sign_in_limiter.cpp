#include "server/sign_in_limiter.h"

#include "base/clock.h"

#include <algorithm>

namespace kestrel
{
namespace
{
// An address never holds a line end, so that no name makes another pair's key.
std::string pair_key(const std::string& name, const std::string& address)
{
  return address + "\n" + name.substr(0, 100);
}
} // namespace

int Sign_In_Limiter::wait_of(const std::string& key, int64_t now) const
{
  const auto found = entries_.find(key);
  if (found == entries_.end() || found->second.blocked_until_msec <= now)
    return 0;
  return static_cast<int>((found->second.blocked_until_msec - now + 999) / 1000);
}

int Sign_In_Limiter::wait_seconds(const std::string& name, const std::string& address)
{
  const int64_t now = clock().monotonic_msec();
  std::lock_guard<std::mutex> guard(mutex_);
  return std::max(wait_of(pair_key(name, address), now), wait_of(address, now));
}

void Sign_In_Limiter::note(const std::string& key, unsigned free, int64_t now)
{
  Entry& entry = entries_[key];
  if (now - entry.last_msec > FORGET_SECONDS * 1000)
    entry = Entry();
  ++entry.failures;
  entry.last_msec = now;
  if (entry.failures < free)
    return;
  const unsigned doublings = std::min(entry.failures - free, 10u);
  entry.blocked_until_msec = now + std::min<int64_t>(int64_t(1) << doublings, LONGEST_WAIT) * 1000;
}

void Sign_In_Limiter::failed(const std::string& name, const std::string& address)
{
  const int64_t now = clock().monotonic_msec();
  std::lock_guard<std::mutex> guard(mutex_);
  forget(now);
  note(pair_key(name, address), FREE_PER_NAME, now);
  note(address, FREE_PER_ADDRESS, now);
}

void Sign_In_Limiter::succeeded(const std::string& name, const std::string& address)
{
  std::lock_guard<std::mutex> guard(mutex_);
  entries_.erase(pair_key(name, address));
}

void Sign_In_Limiter::forget(int64_t now)
{
  if (entries_.size() < ENTRIES)
    return;
  for (auto entry = entries_.begin(); entry != entries_.end();)
    entry = now - entry->second.last_msec > FORGET_SECONDS * 1000 ? entries_.erase(entry) : std::next(entry);
  while (entries_.size() >= ENTRIES)
    entries_.erase(std::min_element(entries_.begin(), entries_.end(), [](const auto& one, const auto& other) {
      return one.second.last_msec < other.second.last_msec;
    }));
}
} // namespace kestrel

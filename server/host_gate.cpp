#include "server/host_gate.h"

#include "base/clock.h"
#include "rpc/rest_router.h"

#include <algorithm>
#include <chrono>

namespace kestrel
{
namespace
{
constexpr int RETRY_SECONDS = 5;
/// More keys than this are looked through for those that nothing counts for any more.
constexpr size_t KEYS = 1000;

std::string requests(unsigned count)
{
  return std::to_string(count) + (count == 1 ? " request" : " requests");
}
} // namespace

Host_Gate::Host_Gate(const Limits& limits)
    : limits_(limits), for_control_(limits.all > 1 ? (limits.all + 3) / 4 : 0)
{
}

unsigned Host_Gate::Load::count(int64_t now)
{
  given_up.erase(
      std::remove_if(given_up.begin(), given_up.end(), [now](int64_t over) { return over <= now; }),
      given_up.end());
  return inside + static_cast<unsigned>(given_up.size());
}

/// With the lock held.
Host_Gate::Full Host_Gate::full_for(bool asks, const std::string& user, const std::string& host)
{
  if (inside_ + (asks ? for_control_ : 0) >= limits_.all)
    return Full::all;
  if (!asks)
    return Full::no;
  const int64_t now = clock().monotonic_msec();
  const auto full = [now](Loads& loads, const std::string& key, unsigned limit) {
    const auto found = loads.find(key);
    return found != loads.end() && found->second.count(now) >= limit;
  };
  return full(users_, user, limits_.user)   ? Full::user
         : full(hosts_, host, limits_.host) ? Full::host
                                            : Full::no;
}

/// With the lock held.
void Host_Gate::forget()
{
  const int64_t now = clock().monotonic_msec();
  for (Loads* const loads : {&users_, &hosts_}) {
    if (loads->size() < KEYS)
      continue;
    for (auto load = loads->begin(); load != loads->end();)
      load = load->second.count(now) == 0 ? loads->erase(load) : std::next(load);
  }
}

void Host_Gate::enter(bool asks, const std::string& user, const std::string& host)
{
  std::unique_lock<std::mutex> lock(mutex_);
  Full full = full_for(asks, user, host);
  unsigned& waiting = asks ? asking_waits_ : control_waits_;
  // Who waits here holds one of the threads, too.
  if (full != Full::no && waiting < for_control_) {
    ++waiting;
    left_.wait_for(lock, std::chrono::milliseconds(limits_.patience_msec),
                   [&] { return (full = full_for(asks, user, host)) == Full::no; });
    --waiting;
  }
  switch (full) {
  case Full::all:
    throw REST_Error(503, "busy", "Too many requests wait for the answers of agents: try again later",
                     RETRY_SECONDS);
  case Full::user:
    throw REST_Error(429, "too_many_requests",
                     requests(limits_.user) + " of this user wait for agents, or were given up a short time "
                                              "ago: let one of them end first",
                     RETRY_SECONDS);
  case Full::host:
    throw REST_Error(503, "host_busy",
                     "The host is busy with " + requests(limits_.host) + ": try again later", RETRY_SECONDS);
  case Full::no:
    break;
  }
  if (asks) {
    forget();
    Load& of_user = users_[user];
    ++hosts_[host].inside;
    ++of_user.inside;
  }
  ++inside_;
}

/// With the lock held.
void Host_Gate::leave(Loads& loads, const std::string& key, int64_t given_up_msec)
{
  const auto found = loads.find(key);
  if (found == loads.end())
    return;
  --found->second.inside;
  const int64_t now = clock().monotonic_msec();
  if (given_up_msec > 0)
    found->second.given_up.push_back(now + given_up_msec);
  if (found->second.count(now) == 0)
    loads.erase(found);
}

Host_Gate::Pass::Pass(Host_Gate& gate) : gate_(gate), asks_(false)
{
  gate_.enter(asks_, user_, host_);
}

Host_Gate::Pass::Pass(Host_Gate& gate, const std::string& user, const std::string& host_uuid)
    : gate_(gate), asks_(true), user_(user), host_(host_uuid)
{
  gate_.enter(asks_, user_, host_);
}

Host_Gate::Pass::~Pass()
{
  const std::lock_guard<std::mutex> guard(gate_.mutex_);
  --gate_.inside_;
  if (asks_) {
    gate_.leave(gate_.users_, user_, given_up_msec_);
    gate_.leave(gate_.hosts_, host_, given_up_msec_);
  }
  gate_.left_.notify_all(); // not everyone that waits may take it
}
} // namespace kestrel

#include "server/host_gate.h"

#include "rpc/rest_router.h"

#include <chrono>

namespace kestrel
{
namespace
{
const std::chrono::milliseconds PATIENCE(2000);
}

Host_Gate::Pass::Pass(Host_Gate& gate, Purpose purpose) : gate_(gate)
{
  const unsigned left_free = purpose == Purpose::control ? 0 : gate_.for_control_;
  std::unique_lock<std::mutex> lock(gate_.mutex_);
  if (!gate_.left_.wait_for(lock, PATIENCE, [&] { return gate_.free_ > left_free; }))
    throw REST_Error(503, "busy", "Too many requests wait for the answers of agents: try again later");
  --gate_.free_;
}

Host_Gate::Pass::~Pass()
{
  const std::lock_guard<std::mutex> guard(gate_.mutex_);
  ++gate_.free_;
  gate_.left_.notify_all(); // not everyone that waits may take it
}
} // namespace kestrel

#include "rpc/json_rpc_task_queue.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace kestrel
{
void JSON_RPC_Task_Queue::push(JSON_RPC_Task task)
{
  ++size_of_[task.from.get()];
  ++size_;
  ready_.push_back(std::move(task));
}

bool JSON_RPC_Task_Queue::take(JSON_RPC_Task& task)
{
  while (!ready_.empty()) {
    task = std::move(ready_.front());
    ready_.pop_front();
    if (task.binding->order == JSON_RPC_Order::as_received && !task.holds_lane) {
      const auto [lane, free] = lanes_.try_emplace(task.from.get());
      if (!free) {
        lane->second.push_back(std::move(task));
        continue;
      }
      task.holds_lane = true;
    }
    left(task.from.get());
    return true;
  }
  return false;
}

bool JSON_RPC_Task_Queue::has_run(const JSON_RPC_Task& task)
{
  return task.holds_lane && release_lane(task.from.get());
}

std::vector<JSON_RPC_Task>
JSON_RPC_Task_Queue::remove(const std::function<bool(const JSON_RPC_Task&)>& wanted,
                            const std::function<void()>& lane_freed)
{
  std::vector<JSON_RPC_Task> taken;
  const auto move_out = [&](std::deque<JSON_RPC_Task>& tasks) {
    const auto first = std::stable_partition(tasks.begin(), tasks.end(),
                                             [&](const JSON_RPC_Task& task) { return !wanted(task); });
    std::move(first, tasks.end(), std::back_inserter(taken));
    tasks.erase(first, tasks.end());
  };
  move_out(ready_);
  for (auto& lane : lanes_)
    move_out(lane.second);
  for (const JSON_RPC_Task& task : taken) {
    left(task.from.get());
    if (task.holds_lane && release_lane(task.from.get()))
      lane_freed();
  }
  return taken;
}

unsigned JSON_RPC_Task_Queue::size_of(const Message_Channel* from) const
{
  const auto count = size_of_.find(from);
  return count == size_of_.end() ? 0 : count->second;
}

void JSON_RPC_Task_Queue::left(const Message_Channel* from)
{
  --size_;
  const auto count = size_of_.find(from);
  if (count != size_of_.end() && --count->second == 0)
    size_of_.erase(count);
}

/// Hands the lane to the next one that waits for it. That one goes to the front of the queue: it is older
/// than all others of its lane there.
bool JSON_RPC_Task_Queue::release_lane(const Message_Channel* from)
{
  const auto lane = lanes_.find(from);
  if (lane == lanes_.end())
    return false;
  if (lane->second.empty()) {
    lanes_.erase(lane);
    return false;
  }
  ready_.push_front(std::move(lane->second.front()));
  lane->second.pop_front();
  ready_.front().holds_lane = true;
  return true;
}
} // namespace kestrel

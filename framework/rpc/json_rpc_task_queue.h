#pragma once

#include "rpc/json_rpc_dispatcher.h"

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <unordered_map>
#include <vector>

namespace kestrel
{
/// What is bound to a method: a handler or a function.
struct JSON_RPC_Binding {
  JSON_RPC_Handler* handler = nullptr; ///< not owned
  JSON_RPC_Dispatcher::Peer_Method function;
  JSON_RPC_Order order = JSON_RPC_Order::any;
};

/// One request or notification on its way to its handler.
struct JSON_RPC_Task {
  std::shared_ptr<Message_Channel> from;
  const JSON_RPC_Binding* binding = nullptr;
  JSON_RPC_Object_Ptr request;
  ACE_Strong_Bound_Ptr<JSON_RPC_Channel, ACE_Thread_Mutex> channel;
  uint64_t key = 0; ///< of its entry among the open requests; 0 for a notification
  bool holds_lane = false;
};

/// The tasks that wait for a thread, oldest first. Of one connection's tasks that must not overtake each
/// other one runs at a time: it holds the connection's lane, and the others wait there. Threads: none of its
/// own; the owner's lock protects it.
class JSON_RPC_Task_Queue
{
public:
  void push(JSON_RPC_Task task);
  /// The next one that may run; false when there is none at present.
  bool take(JSON_RPC_Task& task);
  /// To be called for each one taken, when it has run. True when another one may run now because of that.
  bool has_run(const JSON_RPC_Task& task);
  /// Takes those out that are wanted, and frees their lanes. For each lane that another one got,
  /// lane_freed().
  std::vector<JSON_RPC_Task> remove(const std::function<bool(const JSON_RPC_Task&)>& wanted,
                                    const std::function<void()>& lane_freed);

  bool empty() const { return ready_.empty(); }
  /// Tasks that wait, those that wait for a lane included; and how many of them a connection has.
  unsigned size() const { return size_; }
  unsigned size_of(const Message_Channel* from) const;

private:
  void left(const Message_Channel* from);
  bool release_lane(const Message_Channel* from);

  std::deque<JSON_RPC_Task> ready_;
  /// Connections of which a task that must not be overtaken runs or is about to, with those that wait.
  std::map<const Message_Channel*, std::deque<JSON_RPC_Task>> lanes_;
  /// The tasks counted here keep the connection alive.
  std::unordered_map<const Message_Channel*, unsigned> size_of_;
  unsigned size_ = 0;
};
} // namespace kestrel

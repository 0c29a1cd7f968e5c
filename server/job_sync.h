#pragma once

#include "server/host_workers.h"
#include "json/value.h"

#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

namespace kestrel
{
class Agent_Hub;
class Job_Definitions;

/// Brings the definitions to the agents of their hosts, and what the agents say of them back.
///
/// A host is always sent its complete set, after a change and at each greeting, one exchange at a time; what
/// changes meanwhile is sent after it. A host that cannot be reached gets its set when it greets, one that
/// does not take it is asked again at every retry().
/// Threads:   any. wanted(), hello() and list_again() do not wait for agents.
/// Ownership: hub, definitions and heartbeats are not owned and must outlive stop().
class Job_Sync
{
public:
  /// `heartbeats` hear of its threads; null: nobody watches.
  Job_Sync(Agent_Hub& hub, Job_Definitions& definitions, Heartbeats* heartbeats = nullptr);

  /// These hosts must be sent their definitions again.
  void wanted(const std::vector<std::string>& host_uuids);
  void hello(const std::string& host_uuid);
  /// The list of jobs that the host told has grown old: a run began or ended.
  void list_again(const std::string& host_uuid);
  /// Sends what could not be sent; called every other second.
  void retry();
  void stop();

  /// Waits, for a limited time, until the host has what it was to be sent so far.
  [[nodiscard]] bool await(const std::string& host_uuid, int timeout_msec);

  /// Whether the host's agent has the present definitions, and why it refused this one ("" when it did not).
  bool synced(const std::string& host_uuid) const;
  std::string refusal(const std::string& host_uuid, const std::string& definition_id) const;

private:
  struct Host {
    bool definitions_wanted = false;
    bool list_wanted = false;
    bool under_way = false;
    bool synced = false;
    std::map<std::string, std::string> refused; ///< reasons, by definition
  };

  void schedule(const std::string& host_uuid);
  void exchange(const std::string& host_uuid);
  bool send_definitions(const std::string& host_uuid);
  void fetch_list(const std::string& host_uuid);

  Agent_Hub& hub_;
  Job_Definitions& definitions_;
  mutable std::mutex mutex_;
  std::map<std::string, Host> hosts_;
  Host_Workers workers_;
};
} // namespace kestrel

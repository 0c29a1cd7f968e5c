#pragma once

#include "support/simulated_agent.h"

#include <atomic>
#include <cstdint>
#include <deque>
#include <mutex>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

/// What all agents of a swarm count together.
struct Swarm_Counts {
  std::atomic<uint64_t> connections{0};
  std::atomic<uint64_t> failed_connections{0};
  std::atomic<uint64_t> runs{0};           ///< ended on an agent
  std::atomic<uint64_t> reported{0};       ///< acknowledged by the server
  std::atomic<uint64_t> failed_reports{0}; ///< requests; their records are sent again
  std::atomic<uint64_t> selections{0};     ///< requests for a node that were answered
  std::atomic<uint64_t> failed_selections{0};
  std::atomic<uint64_t> announcements{0};
  std::atomic<uint64_t> surplus_announcements{0}; ///< nobody had asked for them
  std::atomic<uint64_t> connected{0};
};

/// One agent of the swarm: runs its definitions by itself and when it is asked to, tells of each change,
/// reports each run until it is acknowledged, and loses its connection now and then. Threads: start() and
/// finish() by the owner.
class Swarm_Agent
{
public:
  Swarm_Agent(kestrel::Network_Threads& network, kestrel_test::Enrollment enrollment, Swarm_Counts& counts,
              uint32_t seed);
  ~Swarm_Agent();

  void start();
  /// Begins no more runs.
  void end();
  /// Waits until every run was reported. False when records stay unreported.
  [[nodiscard]] bool finish(int limit_seconds);

  const std::string& uuid() const { return agent_.uuid(); }
  /// Ids of all runs that ended here.
  std::set<std::string> runs() const;

private:
  struct Run {
    std::string id;
    std::string definition;
    const char* trigger;
  };

  void work();
  void keep_connection();
  void perform(const Run& run);
  void ask_for_node(const std::string& definition);
  void report();
  int random(int least, int most);
  void pause(int msec);
  bool serve_control(const json_spirit::Value& params, json_spirit::Value& result,
                     kestrel::JSON_RPC_Error& error);

  Swarm_Counts& counts_;
  std::mt19937 random_;
  std::atomic<bool> ending_{false};
  std::atomic<bool> reported_all_{false};

  mutable std::mutex mutex_;
  std::deque<Run> asked_;
  json_spirit::Array unreported_;
  std::set<std::string> runs_;
  uint64_t selections_ = 0;
  bool was_connected_ = false;
  uint64_t counted_announcements_ = 0;

  kestrel_test::Simulated_Agent agent_;
  std::thread thread_;
};

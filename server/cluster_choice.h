#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kestrel
{
/// One host that could do a job of a cluster, with everything the choice depends on.
struct Node_Candidate {
  std::string host_uuid;
  std::string host_name;
  bool connected = false; ///< its agent is connected to the server
  bool asked = false;     ///< its agent runs the job and waits for the choice
  bool answered = false;  ///< the three below were told by its agent
  int node_id = -1;
  bool is_master = false;
  bool online = false;
  std::string problem;       ///< why there is no usable answer, for people
  unsigned running_jobs = 0; ///< other jobs that run there now
  int64_t last_chosen = 0;   ///< number of the selection that chose it last, 0 = none that is remembered
};

struct Node_Wish {
  bool select_master = false;
  bool backup = false; ///< else a restore, or nobody knows
};

struct Node_Choice {
  bool success = false;
  int node_id = -1;
  std::string host_uuid;
  std::string reason; ///< the rule that decided, or why nobody can, as a sentence
};

/// Chooses the node that does a job which all nodes of a cluster have started.
///
/// Only nodes that are online count, and of two that tell the same node id neither: both would do the work.
/// With select_master the master is chosen. A restore goes to the master or to nobody, even when its agent
/// has not asked yet. A backup goes to a node whose agent has asked, for another one would leave the work
/// undone: to the master among them if that is wanted and there is one, else to the one with the fewest
/// jobs, then the one not chosen for longest, then the one with the lowest node id.
/// Threads: any; a pure function of its arguments.
Node_Choice choose_node(const std::vector<Node_Candidate>& candidates, Node_Wish wish);
} // namespace kestrel

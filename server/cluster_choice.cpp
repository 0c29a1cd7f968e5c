#include "server/cluster_choice.h"

#include <algorithm>
#include <tuple>

namespace kestrel
{
namespace
{
typedef std::vector<const Node_Candidate*> Nodes;

bool can_work(const Node_Candidate& candidate)
{
  return candidate.answered && candidate.online && candidate.node_id >= 0;
}

bool shares_its_id(const Node_Candidate& candidate, const std::vector<Node_Candidate>& candidates)
{
  return std::any_of(candidates.begin(), candidates.end(), [&](const Node_Candidate& other) {
    return &other != &candidate && other.answered && other.node_id == candidate.node_id;
  });
}

Nodes only(const Nodes& nodes, bool Node_Candidate::* wanted)
{
  Nodes chosen;
  std::copy_if(nodes.begin(), nodes.end(), std::back_inserter(chosen),
               [wanted](const Node_Candidate* node) { return node->*wanted; });
  return chosen;
}

std::string count_text(size_t count, const char* one, const char* many)
{
  return std::to_string(count) + " " + (count == 1 ? one : many);
}

Node_Choice nobody(const std::string& reason)
{
  Node_Choice choice;
  choice.reason = reason;
  return choice;
}

Node_Choice take(const Node_Candidate& node, const std::string& reason)
{
  Node_Choice choice;
  choice.success = true;
  choice.node_id = node.node_id;
  choice.host_uuid = node.host_uuid;
  choice.reason = reason;
  return choice;
}

/// Which of the rule's three comparisons told the first from the second.
std::string deciding_rule(const Node_Candidate& first, const Node_Candidate& second)
{
  if (first.running_jobs != second.running_jobs)
    return "it has the fewest jobs running (" + std::to_string(first.running_jobs) + ")";
  if (first.last_chosen != second.last_chosen)
    return "it has not been chosen for longest";
  return "it has the lowest node id";
}

Node_Choice take_by_rule(Nodes nodes, const std::string& preface)
{
  std::sort(nodes.begin(), nodes.end(), [](const Node_Candidate* a, const Node_Candidate* b) {
    return std::tie(a->running_jobs, a->last_chosen, a->node_id) <
           std::tie(b->running_jobs, b->last_chosen, b->node_id);
  });
  const std::string rule = nodes.size() == 1 ? std::string("it is the only node that can do the work")
                                             : deciding_rule(*nodes[0], *nodes[1]);
  return take(*nodes[0], preface + rule);
}

Node_Choice choose_for_restore(const Nodes& usable)
{
  const Nodes masters = only(usable, &Node_Candidate::is_master);
  if (masters.empty())
    return nobody("the master is wanted, and no online node says that it is the master");
  if (masters.size() > 1)
    return nobody("the master is wanted, and " + std::to_string(masters.size()) +
                  " nodes say that they are the master");
  return take(*masters[0], masters[0]->asked ? "it is the master"
                                             : "it is the master, though its agent has not asked yet");
}

Node_Choice choose_for_backup(const Nodes& usable, bool select_master)
{
  const Nodes asking = only(usable, &Node_Candidate::asked);
  if (asking.empty())
    return nobody("no node that is online runs the job");
  if (!select_master)
    return take_by_rule(asking, "");
  const Nodes masters = only(asking, &Node_Candidate::is_master);
  if (masters.size() == 1)
    return take(*masters[0], "it is the master");
  if (masters.empty())
    return take_by_rule(asking, "the master is wanted but does not answer for this job; ");
  return take_by_rule(masters, std::to_string(masters.size()) + " nodes say that they are the master; ");
}
} // namespace

Node_Choice choose_node(const std::vector<Node_Candidate>& candidates, Node_Wish wish)
{
  Nodes usable;
  size_t doubled = 0;
  for (const Node_Candidate& candidate : candidates) {
    if (!can_work(candidate))
      continue;
    if (shares_its_id(candidate, candidates))
      ++doubled;
    else
      usable.push_back(&candidate);
  }
  if (usable.empty() && doubled > 0)
    return nobody(count_text(doubled, "node tells", "nodes tell") +
                  " an id that another node tells too; check the addresses of the cluster's nodes");
  if (usable.empty())
    return nobody("none of " + count_text(candidates.size(), "node", "nodes") + " is online");
  // Without the wish for a master a job of unknown kind is a backup: restores always wish for it.
  if (wish.backup || !wish.select_master)
    return choose_for_backup(usable, wish.select_master);
  return choose_for_restore(usable);
}
} // namespace kestrel

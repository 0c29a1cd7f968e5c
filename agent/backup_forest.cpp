#include "agent/backup_forest.h"

#include <algorithm>
#include <map>
#include <utility>

namespace kestrel
{
namespace
{
/// Marks what can be reached from `root` and returns the smallest position among it: the newest backup.
size_t visit(const Backup_Forest& forest, size_t root, std::vector<bool>& reached)
{
  size_t newest = root;
  std::vector<size_t> waiting = {root};
  while (!waiting.empty()) {
    const size_t position = waiting.back();
    waiting.pop_back();
    reached[position] = true;
    newest = std::min(newest, position);
    waiting.insert(waiting.end(), forest.children[position].begin(), forest.children[position].end());
  }
  return newest;
}

/// Makes a root of a backup in the middle of a tree.
void cut_off(Backup_Forest& forest, size_t position)
{
  std::vector<size_t>& siblings = forest.children[forest.parents[position]];
  siblings.erase(std::find(siblings.begin(), siblings.end(), position));
  forest.parents[position] = Backup_Forest::none;
}
} // namespace

Backup_Forest::Backup_Forest(const std::vector<Backup_Entry>& newest_first)
    : parents(newest_first.size(), none), children(newest_first.size()), circular(newest_first.size())
{
  std::map<std::pair<std::string, std::string>, size_t> positions;
  for (size_t position = 0; position < newest_first.size(); ++position)
    positions[{newest_first[position].resource_uuid, newest_first[position].id}] = position;
  for (size_t position = newest_first.size(); position-- > 0;) {
    const Backup_Entry& backup = newest_first[position];
    const auto found = backup.predecessor_id.empty()
                           ? positions.end()
                           : positions.find({backup.resource_uuid, backup.predecessor_id});
    if (found == positions.end())
      continue;
    parents[position] = found->second;
    children[found->second].push_back(position);
  }

  std::vector<bool> reached(newest_first.size());
  std::vector<std::pair<size_t, size_t>> roots_by_newest;
  for (size_t position = 0; position < parents.size(); ++position)
    if (parents[position] == none)
      roots_by_newest.emplace_back(visit(*this, position, reached), position);
  // What no root reaches goes round in a circle.
  for (size_t position = parents.size(); position-- > 0;) {
    if (reached[position])
      continue;
    cut_off(*this, position);
    circular[position] = true;
    roots_by_newest.emplace_back(visit(*this, position, reached), position);
  }
  std::sort(roots_by_newest.begin(), roots_by_newest.end());
  for (const auto& newest_and_root : roots_by_newest)
    roots.push_back(newest_and_root.second);
}

std::vector<size_t> Backup_Forest::restore_order() const
{
  std::vector<size_t> order;
  order.reserve(parents.size());
  for (const size_t root : roots) {
    std::vector<size_t> waiting = {root};
    while (!waiting.empty()) {
      const size_t position = waiting.back();
      waiting.pop_back();
      order.push_back(position);
      waiting.insert(waiting.end(), children[position].rbegin(), children[position].rend());
    }
  }
  return order;
}
} // namespace kestrel

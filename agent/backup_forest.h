#pragma once

#include "agent/backup_catalog.h"

#include <cstddef>
#include <vector>

namespace kestrel
{
/// How the backups of a list build on each other: one tree for each backup that builds on none of the list.
/// Positions in the list stand for the backups; nothing refers to it.
/// Threads: a plain value.
/// Errors:  none; records that build on each other in a circle make a tree that begins at the oldest.
struct Backup_Forest {
  static constexpr size_t none = static_cast<size_t>(-1);

  std::vector<size_t> parents;               ///< none: the list does not hold what it builds on, if anything
  std::vector<std::vector<size_t>> children; ///< oldest first
  std::vector<size_t> roots;                 ///< the tree with the newest member first
  std::vector<bool> circular;                ///< of roots: what it builds on builds on it

  /// `newest_first` is the order of the list.
  explicit Backup_Forest(const std::vector<Backup_Entry>& newest_first);

  /// Every position once, tree by tree, each after the one that it builds on.
  std::vector<size_t> restore_order() const;
};
} // namespace kestrel

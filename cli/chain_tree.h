#pragma once

#include "agent/backup_catalog.h"

#include <cstddef>
#include <string>
#include <vector>

namespace kestrel
{
/// Backup chains as text. A full backup stands at the margin; below it each backup that continues it directly
/// begins a branch, and what continues that one stands straight below it:
///
///     F1        full
///     ├┬ I1     incr   on F1
///     │└ I2     incr   on I1
///     └┬ D1     diff   on F1
///      └ I3     incr   on D1
///
/// Plain functions; any thread; never fail.

/// One line: a backup with the drawing before its id, or a text that takes the whole line.
struct Tree_Line {
  enum class Kind { backup, remark, resource };
  Kind kind = Kind::remark;
  size_t backup = 0; ///< position in the list that was drawn
  std::string text;  ///< the drawing, the remark, or the uuid of the resource whose chains follow
};

enum class Tree_Style { utf8, ascii };

/// What the locale of this process can show.
Tree_Style tree_style_of_locale();

/// The chains of a list of backups, newest chain first; those of one resource together, after a line for it.
/// Where the list is only the newest page of a longer one, a remark stands in the place of the older backups
/// that its chains begin with.
std::vector<Tree_Line> draw_chains(const std::vector<Backup_Entry>& newest_first, Tree_Style style);
} // namespace kestrel

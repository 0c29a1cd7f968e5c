#include "cli/chain_tree.h"

#include "agent/backup_forest.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <map>
#include <utility>

namespace kestrel
{
namespace
{
struct Glyphs {
  const char* tee;     ///< a branch that others follow
  const char* corner;  ///< the last branch
  const char* bar;     ///< beside a branch that others follow
  const char* alone;   ///< a branch of one backup
  const char* begin;   ///< the first of several that continue each other
  const char* further; ///< one in the middle of them
  const char* end;     ///< the last of them
  const char* left_out;
};
const Glyphs utf8_glyphs = {"├", "└", "│", "─", "┬", "├", "└", "⋮"};
const Glyphs ascii_glyphs = {"+", "`", "|", "-", "+", "+", "`", ":"};

class Drawing
{
public:
  Drawing(const std::vector<Backup_Entry>& backups, Tree_Style style)
      : backups_(backups), forest_(backups), glyphs_(style == Tree_Style::utf8 ? utf8_glyphs : ascii_glyphs)
  {
  }

  std::vector<Tree_Line> draw()
  {
    for (const std::vector<Chain>& chains_of_resource : chains()) {
      const std::string& resource = backups_[chains_of_resource.front().roots.front()].resource_uuid;
      lines_.push_back({Tree_Line::Kind::resource, 0, resource});
      for (const Chain& chain : chains_of_resource)
        if (chain.continued_full.empty())
          draw_root(chain.roots.front());
        else
          draw_rest_of_chain(chain);
    }
    return std::move(lines_);
  }

private:
  struct Chain {
    std::string continued_full; ///< empty for a chain that the list holds from its beginning
    std::vector<size_t> roots;  ///< newest first
  };

  /// By resource, in the order of their newest members. Roots whose older members the list does not hold, and
  /// that continue the same full backup, are one chain.
  std::vector<std::vector<Chain>> chains() const
  {
    std::vector<std::vector<Chain>> chains;
    std::map<std::string, size_t> groups;
    std::map<std::pair<std::string, std::string>, size_t> begun;
    for (const size_t root : forest_.roots) {
      const std::string& resource = backups_[root].resource_uuid;
      const size_t group = groups.emplace(resource, groups.size()).first->second;
      chains.resize(groups.size());
      const std::string& full_id = continued_full(root);
      const auto chain = full_id.empty() ? begun.end() : begun.find({resource, full_id});
      if (chain != begun.end()) {
        chains[group][chain->second].roots.push_back(root);
        continue;
      }
      if (!full_id.empty())
        begun[{resource, full_id}] = chains[group].size();
      chains[group].push_back({full_id, {root}});
    }
    return chains;
  }

  /// The full backup of a chain whose beginning the list does not hold; empty for what stands on its own.
  const std::string& continued_full(size_t root) const
  {
    static const std::string none;
    const Backup_Entry& backup = backups_[root];
    const bool begins_here =
        backup.predecessor_id.empty() || backup.predecessor_missing || forest_.circular[root];
    return begins_here ? none : backup.full_backup_id;
  }

  void remark(const std::string& text) { lines_.push_back({Tree_Line::Kind::remark, 0, text}); }

  /// What builds on something that is not there hangs below a remark, a full backup stands at the margin.
  void draw_root(size_t position)
  {
    const Backup_Entry& backup = backups_[position];
    if (forest_.circular[position])
      remark("? builds on " + backup.predecessor_id + ", which builds on it");
    else if (backup.predecessor_missing)
      remark("? builds on " + backup.predecessor_id + ", which is not in the catalog");
    else {
      lines_.push_back({Tree_Line::Kind::backup, position, ""});
      draw_branches(forest_.children[position], "");
      return;
    }
    draw_branches({position}, "");
  }

  void draw_rest_of_chain(const Chain& chain)
  {
    std::vector<size_t> branches = chain.roots;
    std::sort(branches.rbegin(), branches.rend()); // oldest first
    const uint64_t length = backups_[branches.front()].chain_length;
    const std::string older =
        branches.size() == 1 && length > 1 ? std::to_string(length - 1) + " older" : std::string("older");
    remark(std::string(glyphs_.left_out) + " " + older + " not shown, from full " + chain.continued_full +
           " on");
    draw_branches(branches, "");
  }

  void draw_branches(const std::vector<size_t>& branches, const std::string& margin)
  {
    for (size_t branch = 0; branch < branches.size(); ++branch)
      draw_run(branches[branch], margin, branch + 1 == branches.size());
  }

  /// A backup and, straight below it, what continues it for as long as only one backup does.
  void draw_run(size_t first, const std::string& margin, bool last_branch)
  {
    std::vector<size_t> run = {first};
    while (forest_.children[run.back()].size() == 1)
      run.push_back(forest_.children[run.back()].front());
    const std::string beside = margin + (last_branch ? " " : glyphs_.bar);
    for (size_t member = 0; member < run.size(); ++member) {
      const char* glyph = run.size() == 1           ? glyphs_.alone
                          : member == 0             ? glyphs_.begin
                          : member + 1 < run.size() ? glyphs_.further
                                                    : glyphs_.end;
      const std::string before = member ? beside : margin + (last_branch ? glyphs_.corner : glyphs_.tee);
      lines_.push_back({Tree_Line::Kind::backup, run[member], before + glyph + " "});
    }
    draw_branches(forest_.children[run.back()], beside + "  ");
  }

  const std::vector<Backup_Entry>& backups_;
  const Backup_Forest forest_;
  const Glyphs& glyphs_;
  std::vector<Tree_Line> lines_;
};
} // namespace

Tree_Style tree_style_of_locale()
{
  for (const char* name : {"LC_ALL", "LC_CTYPE", "LANG"}) {
    const char* value = std::getenv(name);
    if (!value || !*value)
      continue;
    std::string text(value);
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
    return text.find("utf-8") != std::string::npos || text.find("utf8") != std::string::npos
               ? Tree_Style::utf8
               : Tree_Style::ascii;
  }
  return Tree_Style::ascii;
}

std::vector<Tree_Line> draw_chains(const std::vector<Backup_Entry>& newest_first, Tree_Style style)
{
  return Drawing(newest_first, style).draw();
}
} // namespace kestrel

#include "lab/common/swap_journal.h"

#include "lab/common/chain_file.h"
#include "lab/common/pending_restore.h"
#include "lab/common/text.h"

#include <fcntl.h>
#include <set>
#include <unistd.h>
#include <vector>

namespace oscar_lab
{

namespace
{

std::string journal_path(const Instance_Files& files)
{
  return files.directory() + "/restore.journal";
}

std::string sides_path(const Instance_Files& files)
{
  return files.directory() + "/restore.sides";
}

std::string old_of(const std::string& target)
{
  return target + ".old";
}

struct Swap_Plan {
  struct Pair {
    std::string side;   // complete and synced; empty when the target only goes away
    std::string target; // may be missing
  };
  std::vector<Pair> pairs;
};

/// Old tablespaces that the restored data do not know go away with the old data.
Swap_Plan plan_of(const Instance_Files& files, const std::vector<Restored_Root>& roots)
{
  Swap_Plan plan;
  std::set<std::string> targets;
  for (const Restored_Root& root : roots) {
    plan.pairs.push_back({side_of(root.target), root.target});
    targets.insert(root.target);
  }
  for (const Tablespace& old : tablespaces_of(files.data()))
    if (targets.count(old.location) == 0)
      plan.pairs.push_back({"", old.location});
  return plan;
}

Swap_Plan read_journal(const Instance_Files& files)
{
  Swap_Plan plan;
  for (const std::string& line : split_lines(read_file(journal_path(files)))) {
    const auto tab = line.find('\t');
    if (tab == std::string::npos)
      throw Failure(journal_path(files) + " is damaged");
    plan.pairs.push_back({line.substr(0, tab), line.substr(tab + 1)});
  }
  return plan;
}

void make_placeholder(const Instance_Files& files, const std::string& target)
{
  const std::string datafile =
      target == files.data() ? files.directory() + "/SYSTEM.dbf" : datafile_of(target);
  if (path_exists(datafile))
    return;
  replace_file(datafile, "", 0640);
  give_to(datafile, owner_of(files.directory()));
}

/// Every step checks what an earlier, interrupted run already did.
void carry_through(const Instance_Files& files, const Swap_Plan& plan)
{
  for (const Swap_Plan::Pair& pair : plan.pairs) {
    const bool side_waits = !pair.side.empty() && path_exists(pair.side);
    const bool only_removal = pair.side.empty();
    if ((side_waits || only_removal) && path_exists(pair.target) && !path_exists(old_of(pair.target)))
      rename_path(pair.target, old_of(pair.target));
    if (side_waits)
      rename_path(pair.side, pair.target);
    sync_directory(parent_directory(pair.target));
  }
  // The archived log and the chain belong to the replaced data.
  remove_tree(files.archive());
  remove_tree(files.chain_notes());
  make_directory(files.archive(), 0700);
  give_to(files.archive(), owner_of(files.directory()));
  forget_chain(files);
  for (const Swap_Plan::Pair& pair : plan.pairs) {
    remove_tree(old_of(pair.target));
    if (pair.side.empty())
      remove_tree(datafile_of(pair.target));
    else
      make_placeholder(files, pair.target);
  }
  remove_tree(files.incomplete_mark());
  remove_tree(sides_path(files));
  remove_pending(files);
  remove_tree(journal_path(files));
  sync_directory(files.directory());
}

} // namespace

std::string side_of(const std::string& target)
{
  return target + ".restore";
}

void note_side(const Instance_Files& files, const std::string& side)
{
  const Descriptor list = open_file(sides_path(files), O_WRONLY | O_CREAT | O_APPEND, 0640);
  const std::string line = side + "\n";
  write_all(list.get(), line.data(), line.size(), sides_path(files));
  if (::fsync(list.get()) != 0)
    fail_errno("cannot sync " + sides_path(files));
}

namespace
{

void put_in_place(const Instance_Files& files, const Pending_Restore& pending)
{
  const Swap_Plan plan = plan_of(files, pending.roots);
  std::string text;
  for (const Swap_Plan::Pair& pair : plan.pairs)
    text += pair.side + "\t" + pair.target + "\n";
  replace_file(journal_path(files), text, 0640);
  carry_through(files, plan);
}

} // namespace

void drop_restore(const Instance_Files& files)
{
  if (is_regular_file(journal_path(files)))
    return;
  // First, so that nobody takes directories for complete that are half removed.
  remove_pending(files);
  if (!is_regular_file(sides_path(files)))
    return;
  sync_directory(files.directory());
  for (const std::string& side : split_lines(read_file(sides_path(files))))
    if (ends_with(side, side_of(""))) // never anything but what note_side wrote
      remove_tree(side);
  remove_tree(sides_path(files));
}

Settled settle_cut_off(const Instance_Files& files)
{
  if (is_regular_file(journal_path(files))) {
    carry_through(files, read_journal(files));
    return Settled::in_place;
  }
  Pending_Restore pending;
  if (!is_regular_file(sides_path(files)) || (read_pending(files, pending) && pending.complete))
    return Settled::nothing;
  drop_restore(files);
  return Settled::dropped;
}

Settled settle_restore(const Instance_Files& files)
{
  const Settled cut_off = settle_cut_off(files);
  Pending_Restore pending;
  if (cut_off != Settled::nothing || !read_pending(files, pending))
    return cut_off;
  put_in_place(files, pending);
  return Settled::in_place;
}

} // namespace oscar_lab

#include "lab/common/swap_journal.h"

#include "lab/common/chain_file.h"
#include "lab/common/text.h"

#include <fcntl.h>
#include <unistd.h>

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
  make_directory(files.archive(), 0700);
  give_to(files.archive(), owner_of(files.directory()));
  forget_chain(files);
  for (const Swap_Plan::Pair& pair : plan.pairs) {
    remove_tree(old_of(pair.target));
    if (pair.side.empty())
      remove_tree(datafile_of(pair.target));
  }
  remove_tree(sides_path(files));
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

void commit_swap(const Instance_Files& files, const Swap_Plan& plan)
{
  std::string text;
  for (const Swap_Plan::Pair& pair : plan.pairs)
    text += pair.side + "\t" + pair.target + "\n";
  replace_file(journal_path(files), text, 0640);
  carry_through(files, plan);
}

bool recover_swap(const Instance_Files& files)
{
  const bool half_done = is_regular_file(journal_path(files));
  if (half_done)
    carry_through(files, read_journal(files));
  if (is_regular_file(sides_path(files))) {
    for (const std::string& side : split_lines(read_file(sides_path(files))))
      if (ends_with(side, side_of(""))) // never anything but what note_side wrote
        remove_tree(side);
    remove_tree(sides_path(files));
  }
  return half_done;
}

} // namespace oscar_lab

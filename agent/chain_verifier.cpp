#include "agent/chain_verifier.h"

#include "agent/backup_forest.h"

namespace kestrel
{
namespace
{
using Outcome = Chain_Verification::Outcome;

Outcome outcome_of_file(const Verification& file)
{
  switch (file.outcome) {
  case Verification::Outcome::good:
    return Outcome::good;
  case Verification::Outcome::damaged:
    return Outcome::damaged;
  case Verification::Outcome::unknown:
    break;
  }
  return Outcome::unknown;
}

void set_outcome(Chain_Verification& verification, Outcome outcome, const std::string& problem)
{
  verification.outcome = outcome;
  verification.problem = problem;
}

/// A good file at the begin of a tree: a backup that needs nothing, or one whose chain has a gap.
void judge_root(const Backup_Forest& forest, size_t position, Chain_Verification& verification)
{
  const std::string& predecessor_id = verification.backup.predecessor_id;
  if (forest.circular[position])
    set_outcome(verification, Outcome::no_chain, "builds on " + predecessor_id + ", which builds on it");
  else if (!predecessor_id.empty())
    set_outcome(verification, Outcome::no_chain,
                "builds on " + predecessor_id + ", which is not in the catalog");
}

/// A good file is worth as much as what it builds on.
void judge_member(const Chain_Verification& parent, Chain_Verification& verification)
{
  const std::string builds_on = "builds on " + parent.backup.id;
  if (verification.backup.level == "diff" && parent.backup.level != "full")
    set_outcome(verification, Outcome::no_chain, builds_on + ", which is not a full backup");
  else if (parent.outcome == Outcome::damaged)
    set_outcome(verification, Outcome::no_chain, builds_on + ", which is damaged");
  else if (parent.outcome == Outcome::no_chain)
    set_outcome(verification, Outcome::no_chain, builds_on + ", which cannot be restored");
  else if (parent.outcome == Outcome::unknown)
    set_outcome(verification, Outcome::unknown, builds_on + ", which was not verified");
}
} // namespace

std::vector<Chain_Verification>
verify_chains(const std::vector<Backup_Entry>& newest_first,
              const std::function<Verification(const Backup_Entry&)>& verify_one,
              const std::function<bool(const Chain_Verification&)>& finished)
{
  const Backup_Forest forest(newest_first);
  std::vector<size_t> places(newest_first.size());
  std::vector<Chain_Verification> verifications;
  verifications.reserve(newest_first.size());
  for (const size_t position : forest.restore_order()) {
    places[position] = verifications.size();
    Chain_Verification verification;
    verification.backup = newest_first[position];
    verification.file = verify_one(verification.backup);
    set_outcome(verification, outcome_of_file(verification.file), verification.file.problem);
    if (verification.outcome == Outcome::good) {
      const size_t parent = forest.parents[position];
      if (parent == Backup_Forest::none)
        judge_root(forest, position, verification);
      else
        judge_member(verifications[places[parent]], verification);
    }
    verifications.push_back(std::move(verification));
    if (!finished(verifications.back()))
      break;
  }
  return verifications;
}
} // namespace kestrel

#pragma once

#include "agent/backup_verifier.h"

#include <functional>
#include <string>
#include <vector>

namespace kestrel
{
/// What the verification of a set says of it as a member of its chain.
struct Chain_Verification {
  enum class Outcome {
    good,     ///< it and everything that it builds on was read and agrees: it can be restored
    damaged,  ///< its own stored file is missing, or differs from what was backed up
    no_chain, ///< its own file is good, but something that it builds on is damaged or not in the catalog
    unknown,  ///< it, or something that it builds on, could not be judged
  };
  Outcome outcome = Outcome::unknown;
  std::string problem; ///< one sentence unless good
  Backup_Entry backup;
  Verification file; ///< of its own stored file
};

/// Verifies every backup of a list, chain by chain, in the order in which a restore would read them; each
/// stored file is read once, however many chains it belongs to. A backup on something that the list does not
/// hold counts as one whose predecessor is not in the catalog: list whole chains.
/// Threads: any; blocks for as long as `verify_one` takes, which reads one backup. `finished` is called
///          after each one; false ends the walk. The results are in the order of the walk.
std::vector<Chain_Verification>
verify_chains(const std::vector<Backup_Entry>& newest_first,
              const std::function<Verification(const Backup_Entry&)>& verify_one,
              const std::function<bool(const Chain_Verification&)>& finished);
} // namespace kestrel

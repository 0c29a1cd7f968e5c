#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace kestrel
{
/// Something that users name by its id, a beginning of it, or its name.
struct Candidate {
  std::string id;
  std::string name; ///< may be empty
};

enum class Reference_Fit { none, one, several };

/// Finds the candidate that `reference` means: the one with this id; else the one with this name; else the
/// only one whose id begins so. `position` is written for one only, `error` for the others: a sentence that
/// lists what fits. `kind` is the noun: "job". Plain function; any thread.
Reference_Fit resolve_reference(const std::string& kind, const std::string& reference,
                                const std::vector<Candidate>& candidates, size_t& position,
                                std::string& error);
} // namespace kestrel

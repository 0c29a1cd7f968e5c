#include "cli/reference.h"

namespace kestrel
{
namespace
{
const size_t LISTED = 5;

std::string list_of(const std::vector<Candidate>& candidates, const std::vector<size_t>& fitting)
{
  std::string text;
  for (size_t i = 0; i < fitting.size() && i < LISTED; ++i) {
    const Candidate& candidate = candidates[fitting[i]];
    text += (i ? ", " : "") + candidate.id + (candidate.name.empty() ? "" : " (" + candidate.name + ")");
  }
  if (fitting.size() > LISTED)
    text += " and " + std::to_string(fitting.size() - LISTED) + " more";
  return text;
}
} // namespace

Reference_Fit resolve_reference(const std::string& kind, const std::string& reference,
                                const std::vector<Candidate>& candidates, size_t& position,
                                std::string& error)
{
  std::vector<size_t> named;
  std::vector<size_t> beginning;
  for (size_t i = 0; i < candidates.size() && !reference.empty(); ++i) {
    if (candidates[i].id == reference) {
      position = i;
      return Reference_Fit::one;
    }
    if (candidates[i].name == reference)
      named.push_back(i);
    else if (candidates[i].id.compare(0, reference.size(), reference) == 0)
      beginning.push_back(i);
  }
  const std::vector<size_t>& fitting = named.empty() ? beginning : named;
  if (fitting.size() == 1) {
    position = fitting.front();
    return Reference_Fit::one;
  }
  if (fitting.empty()) {
    error = "there is no " + kind + " " + reference;
    return Reference_Fit::none;
  }
  error = std::to_string(fitting.size()) + " " + kind + "s fit " + reference + ": " +
          list_of(candidates, fitting) + "; give more of the id";
  return Reference_Fit::several;
}
} // namespace kestrel

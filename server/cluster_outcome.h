#pragma once

#include "json/value.h"

#include <string>
#include <vector>

namespace kestrel
{
/// The newest run of a cluster's job on one of its hosts.
struct Node_Outcome {
  std::string host_name;
  json_spirit::Object record; ///< as its agent reported it; empty when no run is known
  bool running = false;       ///< one is under way
};

/// When the last start of a cluster's job left the work undone on all its hosts: a sentence with the reason
/// of each. Agents whose instances are all down never get as far as to ask for a node, so that no selection
/// tells of it. Empty when one has done the work, or still may. Runs long before the newest one belong to
/// other starts.
///
/// Threads: any; a pure function of its arguments.
std::string why_nobody_worked(const std::string& job_name, const std::vector<Node_Outcome>& outcomes);
} // namespace kestrel

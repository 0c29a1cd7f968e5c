#pragma once

#include "json/value.h"

#include <map>
#include <memory>
#include <string>

/// One database instance as the registry knows it, and as a handler's probe reports it.
/// An object that the registry hands out is the caller's own copy of that moment: it never changes under the
/// reader.
struct Instance {
  std::string type; ///< "oscar"
  std::string name;
  std::string uuid; ///< stays the same for (type, name) on this host; empty in probe results
  /// "oscar_home" and "version" (strings); in a cluster "instance" (string), "node_id" and "master_id"
  /// (integers).
  std::map<std::string, json_spirit::Value> options;
};

/// Merges `attrs` into the options that the registry keeps for this instance; other options stay. Copies
/// handed out before do not change. 0, or -1 after one line at LM_ERROR: not registered, or the registry
/// could not be written (then it is unchanged).
[[nodiscard]] int update_instance(std::shared_ptr<const Instance> instance,
                                  const std::map<std::string, json_spirit::Value>& attrs);

namespace kestrel
{
/// A recorded text option of the instance; "" when there is none.
std::string option_text(const Instance& instance, const char* key);
} // namespace kestrel

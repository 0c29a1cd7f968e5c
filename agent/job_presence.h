#pragma once

#include "base/descriptor.h"

#include <string>
#include <vector>

namespace kestrel
{
/// Tells the processes of one installation whether others of them may be running jobs, and lets the first one
/// clear away the named pipes and dump files that a killed process left behind.
/// Threads:   one owner.
/// Ownership: holds a shared lock on jobs.lock of the state directory until it is destroyed.
/// Errors:    false with `error`; nothing is held then.
/// Crash:     the kernel frees the lock; the next process that is alone removes what was left.
class Job_Presence
{
public:
  /// `removed`, when it is not null, gets the paths that were cleared away.
  [[nodiscard]] bool enter(std::string& error, std::vector<std::string>* removed = nullptr);

private:
  Auto_Closer<int, Auto_Handle_Trait> lock_{Auto_Handle_Trait::invalid()};
};
} // namespace kestrel

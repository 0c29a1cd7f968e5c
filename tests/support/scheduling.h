#pragma once

#include <string>

namespace kestrel_test
{
/// The scheduling policy (SCHED_...) in the text of a /proc/PID/stat; -1 when it is not such a text.
int policy_in_stat(const std::string& stat);
} // namespace kestrel_test

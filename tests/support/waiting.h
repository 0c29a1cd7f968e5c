#pragma once

#include <functional>
#include <string>
#include <sys/types.h>

namespace kestrel_test
{
/// Waits in real time until the condition holds and gives whether it does. The limit of a minute is for a
/// test that fails; a busy machine must never come near it.
bool eventually(const std::function<bool()>& holds);
bool wait_for_file(const std::string& path);
/// Whether the process is gone, or a zombie that its new parent has not taken yet.
bool has_ended(pid_t pid);
} // namespace kestrel_test

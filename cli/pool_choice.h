#pragma once

#include "cli/command_context.h"

namespace kestrel
{
/// The pool that --pool names, else the default pool. False after fail().
[[nodiscard]] bool choose_target_pool(Command_Context& context, Pool_Info& pool);
/// The id of the pool that --pool names to read from; empty without it. False after fail().
[[nodiscard]] bool choose_source_pool(Command_Context& context, std::string& pool_id);
} // namespace kestrel

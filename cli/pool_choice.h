#pragma once

#include "cli/session.h"

namespace kestrel
{
/// The pool that --pool names, else the default pool. False after Session::fail().
[[nodiscard]] bool choose_target_pool(Session& session, Pool_Info& pool);
/// The id of the pool that --pool names to read from; empty without it. False after Session::fail().
[[nodiscard]] bool choose_source_pool(Session& session, std::string& pool_id);
} // namespace kestrel

#pragma once

#include "cli/command_output.h"
#include "storage/pool.h"

#include <cstdint>
#include <vector>

namespace kestrel
{
/// A pool as 'pool list' shows it.
struct Listed_Pool {
  Pool_Info pool;
  bool is_default = false;
  uint64_t backups = 0;
};

/// One pool as --json shows it; docs/formats.md documents the keys.
json_spirit::Object json_of_pool(const Pool_Info& pool);
/// The result of 'pool list'.
void show_pools(Command_Output& output, const std::vector<Listed_Pool>& pools);
} // namespace kestrel

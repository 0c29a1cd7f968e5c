#include "oscar/brcmd_restore_sequence.h"

#include <limits>

namespace oscar
{
namespace
{
using json_spirit::find_value;

/// "" when the row has no text under this name: records made elsewhere may lack it.
std::string optional_text(const json_spirit::Object& row, const char* name)
{
  const json_spirit::Value& value = find_value(row, name);
  return value.type() == json_spirit::str_type ? value.get_str() : std::string();
}

Restore_Set read_row(const json_spirit::Object& row, const std::string& pool_override)
{
  Restore_Set set;
  set.backup_set_size = find_value(row, "backup_set_size").get_uint64();
  set.pool_uuid = pool_override.empty() ? find_value(row, "pool_uuid").get_str() : pool_override;
  set.uri = find_value(row, "uri").get_str();
  set.backup_file = find_value(row, "backup_file").get_str();
  set.checksum = optional_text(row, "pump_checksum");
  if (set.checksum.empty())
    set.checksum = optional_text(row, "original_checksum");
  return set;
}
} // namespace

std::vector<Restore_Set> read_restore_sequence(const json_spirit::Value& result,
                                               const std::string& pool_override, uint64_t& total_bytes)
{
  std::vector<Restore_Set> sets;
  uint64_t sum = 0;
  for (const json_spirit::Value& row : find_value(result.get_obj(), "rows").get_array()) {
    sets.push_back(read_row(row.get_obj(), pool_override));
    const uint64_t size = sets.back().backup_set_size;
    sum =
        size > std::numeric_limits<uint64_t>::max() - sum ? std::numeric_limits<uint64_t>::max() : sum + size;
  }
  total_bytes = sum;
  return sets;
}
} // namespace oscar

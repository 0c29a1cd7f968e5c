#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "json/value.h"

namespace oscar
{
/// One stored file of a restore, in the order in which the files must be restored.
struct Restore_Set {
  uint64_t backup_set_size = 0; ///< bytes of the stream
  std::string pool_uuid;
  std::string uri; ///< folder of the file in the pool
  std::string backup_file;
  std::string checksum; ///< of the stream as it was backed up; empty when the catalog keeps none
};

/// Reads the answer of the catalog's view of a sequence. pool_override, when not empty, stands in for the
/// pool of every row. total_bytes: the sum of the sizes, at most the largest 64-bit value.
/// Errors: throws std::runtime_error when the answer or a row has another shape.
std::vector<Restore_Set> read_restore_sequence(const json_spirit::Value& result,
                                               const std::string& pool_override, uint64_t& total_bytes);
} // namespace oscar

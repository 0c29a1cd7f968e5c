#pragma once

#include "json/value.h"

#include <cstdint>
#include <utility>

namespace MTF
{
/// The record that travels with an archive: what the producer of the files wants to find again, as JSON, and
/// the sizes of the transfer. Derived classes give the JSON its meaning and add no field.
/// Threads: a plain value.
/// Units:   bytes.
class Metadata
{
public:
  /// Null until something is stored.
  const json_spirit::Value& metadata() const { return metadata_; }
  void metadata(json_spirit::Value value) { metadata_ = std::move(value); }

  /// Bytes of the files, of the archive, and of the archive as stored.
  uint64_t source_size() const { return source_size_; }
  void source_size(uint64_t bytes) { source_size_ = bytes; }
  uint64_t set_size() const { return set_size_; }
  void set_size(uint64_t bytes) { set_size_ = bytes; }
  uint64_t set_storage_size() const { return set_storage_size_; }
  void set_storage_size(uint64_t bytes) { set_storage_size_ = bytes; }

protected:
  json_spirit::Value metadata_;

private:
  uint64_t source_size_ = 0;
  uint64_t set_size_ = 0;
  uint64_t set_storage_size_ = 0;
};
} // namespace MTF

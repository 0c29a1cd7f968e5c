#pragma once

#include "storage/compression.h"

#include <cstdint>
#include <string>

namespace kestrel
{
/// What stands in the side file of a stored file: a JSON object that tells how the file was stored and by
/// which sizes and checksums it can be verified. Readers ignore keys that they do not know. The text ends
/// with a checksum of itself, so that damage to the side file is not taken for damage to the data. A plain
/// value. Checksums are XXH3-128 as 32 lower-case hexadecimal digits.
struct Side_File {
  Compression_Method method = COMPRESSION_NONE;
  uint64_t original_size = 0;
  std::string original_checksum;
  uint64_t storage_size = 0;
  std::string storage_checksum;
  /// When the file was completed, in seconds since 1970.
  int64_t time = 0;
};

/// The text to store.
std::string side_file_text(const Side_File& content);

/// Reads such a text. False, with `error` filled and `content` untouched, when the text is damaged,
/// incomplete, of a newer format version, or names a method that this build does not have.
[[nodiscard]] bool parse_side_file(const std::string& text, Side_File& content, std::string& error);
} // namespace kestrel

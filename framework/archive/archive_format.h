#pragma once

#include "archive/mtf.h"
#include "json/value.h"

#include <cstdint>
#include <string>
#include <vector>

namespace kestrel
{
// An archive is a pax file: the record, the files in the record's order, the index, the tail. The three
// entries of our own lie in ".kestrel/", where no file may be. docs/formats.md shows them.
extern const char* const archive_record_name;
extern const char* const archive_index_name;
extern const char* const archive_tail_name;

/// Bytes of the tail entry's content, and of everything from its header to the end of the archive.
const unsigned archive_tail_bytes = 512;
const unsigned archive_end_bytes = 512 + archive_tail_bytes + 1024;
/// No record or index is longer.
const uint64_t archive_most_text_bytes = 64u * 1024 * 1024;

/// What the archive is and holds; known before the first file is read.
struct Archive_Record {
  struct File {
    std::string name; ///< in the archive
    std::string path; ///< where it was read
    uint64_t size = 0;
  };
  std::string uuid; ///< of the backup
  std::string definition_uuid;
  std::string host_uuid;
  std::string minor_resource_id;
  std::string pool_uuid;
  std::string device_uuid;
  uint64_t seq = 0;
  bool incremental = false;
  std::string compression;     ///< the method's name
  int64_t time = 0;            ///< seconds since 1970
  json_spirit::Value metadata; ///< the producer's
  std::vector<File> files;
};

/// Where everything is and what it must be. Offsets are bytes of the uncompressed archive.
struct Archive_Index {
  struct File {
    MTF::Stored_Member member;
    unsigned mode = 0;
    uint64_t header_offset = 0;
    uint64_t data_offset = 0;
  };
  uint64_t record_offset = 0;
  uint64_t record_size = 0;
  std::string record_checksum;
  std::vector<File> files;
};

/// Finds the index from the end of the archive.
struct Archive_Tail {
  uint64_t index_offset = 0; ///< of the index's text
  uint64_t index_size = 0;
  std::string index_checksum;
};

std::string archive_record_text(const Archive_Record& record);
std::string archive_index_text(const Archive_Index& index);
/// Exactly archive_tail_bytes.
std::string archive_tail_text(const Archive_Tail& tail);

// False with `error` for a text that is damaged, of a newer format, or breaks a rule of the format (names,
// order, sizes); the result is then untouched.
[[nodiscard]] bool parse_archive_record(const std::string& text, Archive_Record& record, std::string& error);
[[nodiscard]] bool parse_archive_index(const std::string& text, Archive_Index& index, std::string& error);
[[nodiscard]] bool parse_archive_tail(const std::string& text, Archive_Tail& tail, std::string& error);

/// Whether a file of this name may be in an archive: relative, one or two components, none of them "." or
/// "..", not in ".kestrel/".
[[nodiscard]] bool is_archive_member_name(const std::string& name, std::string& error);

/// False with `error` when the index does not list the record's files in the record's order.
[[nodiscard]] bool index_agrees(const Archive_Index& index, const Archive_Record& record, std::string& error);

/// A name for messages: control characters become '?'.
std::string shown_name(const std::string& name);
} // namespace kestrel

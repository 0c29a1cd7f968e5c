#pragma once

#include <cstdint>
#include <string>

namespace kestrel
{
/// What an agent wants to store, and the server's note of it.
struct Upload_Record {
  /// Chosen by the agent, a uuid: a request whose answer got lost may so be repeated.
  std::string id;
  std::string host_uuid;
  std::string pool_id;
  std::string folder;
  std::string name;
  bool overwrite = false;
  /// How long the agent goes on trying after it has lost the server.
  uint64_t keep_seconds = 0;
  /// What tells the unfinished file from a later one of the same name: where it lies on the disk, and the
  /// machine's start, after which not every byte that was confirmed need still be there.
  uint64_t inode = 0;
  std::string boot_id;
  int64_t created = 0;
  enum State { open, left, finished } state = open;
};

/// The note of an upload as it is kept in a file of its own: JSON with a version. Any thread.
std::string upload_note(const Upload_Record& record);
/// Errors: throws std::runtime_error on anything that is not such a note, or is one of a newer release.
Upload_Record upload_from_note(const std::string& text);
} // namespace kestrel

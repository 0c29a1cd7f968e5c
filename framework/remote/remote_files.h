#pragma once

#include "remote/remote_storage.h"

#include <memory>
#include <string>

// The files of a pool on the backup server, see remote_storage.h.

namespace kestrel
{
/// Null with `error` and errno; EEXIST exactly when the name is taken.
[[nodiscard]] std::unique_ptr<Stored_File_Writer> create_remote_file(const Storage_Link& link,
                                                                     const std::string& name, bool overwrite,
                                                                     std::string& error);
/// Null with `error` and errno; ENOENT exactly when there is no such file.
[[nodiscard]] std::unique_ptr<Stored_File_Reader> open_remote_file(const Storage_Link& link,
                                                                   const std::string& name,
                                                                   std::string& error);

/// Whether the same request may work later.
bool is_passing(const REST_Problem& problem);
} // namespace kestrel

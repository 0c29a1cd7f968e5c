#pragma once

#include <string>

namespace kestrel
{
/// Who this installation is, kept in host.json of the state directory and made at the first use. A host that
/// is enrolled at a backup server has the identity that the server gave it (agent/server_key.h).
struct Host_Identity {
  std::string host_id; ///< stands in every catalog record
  std::string user_id; ///< uuid of the user that jobs of this installation belong to
};

/// Reads the identity, or makes and stores one. Two processes that start at once get the same one.
/// Errors: false with `error` naming the file and what to do; a damaged file is never replaced.
[[nodiscard]] bool load_host_identity(Host_Identity& identity, std::string& error);
} // namespace kestrel

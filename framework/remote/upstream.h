#pragma once

#include "remote/rest_client.h"

#include <string>

namespace kestrel
{
/// How a host reaches its backup server. URL and authorities as in REST_Client_Options.
struct Upstream_Options {
  std::string url;
  std::string ca_pem;
  std::string ca_file;
  /// The host's identity: "<host uuid>.<key>". A secret.
  std::string access_key;
  /// For one attempt to move a piece of a stored file; a longer one counts as lost and is tried again.
  unsigned transfer_seconds = 60;
};

/// From here on jobs of this process use the server: for the catalog, for pools, for the files in pools, and
/// for what the module asks of a server, also on the server's own machine: what the server checks and notes of
/// an access it can only check and note itself. Host_Manager learns the one key that a host has, and
/// on_backupd() stays false. Replaces an earlier registration. Nothing is sent yet: a server that
/// is down now may come later.
/// Threads: at start and end of the process, or between jobs; calls under way finish with what they began
///          with.
/// Errors:  false with a sentence in `error` when the URL is malformed or the access key is missing; nothing
///          has changed then.
[[nodiscard]] bool register_upstream(const Upstream_Options& options, std::string& error);
/// The host keeps catalog and pools itself again. Harmless when nothing is registered.
void unregister_upstream();

/// The same for a console: catalog and pools of the server can be read with the session's token
/// (`connection.bearer`), changing anything is refused here already. Undone by unregister_upstream().
[[nodiscard]] bool register_console_upstream(const REST_Client_Options& connection, std::string& error);
} // namespace kestrel

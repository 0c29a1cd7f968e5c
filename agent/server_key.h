#pragma once

#include <string>

namespace kestrel
{
/// What an enrolled host knows of its backup server: what the enrollment file brought. Kept in
/// server_key.json of the component's state directory (mode 0600).
/// Threads: plain values; of the functions one caller at a time for each state directory.
/// Errors:  false with one sentence in `error` that names the file and what to do, and never the key;
///          out-parameters untouched.
struct Server_Key {
  std::string url;        ///< "https://host:port"
  std::string host_uuid;  ///< this host on the server
  std::string name;       ///< the same for people
  std::string access_key; ///< hexadecimal digits of 32 bytes
  std::string ca_pem;     ///< certificates that the server's must be signed with

  bool enrolled() const { return !host_uuid.empty(); }
  /// The value of the access key header.
  std::string header() const { return host_uuid + "." + access_key; }
};

/// The text of an enrollment file, or of server_key.json: both are {"format":1,"server","host_uuid","name",
/// "access_key","ca_pem"}. `path` only names it in errors.
[[nodiscard]] bool parse_server_key(const std::string& text, const std::string& path, Server_Key& key,
                                    std::string& error);

/// Where it is kept.
std::string server_key_path();
/// A host that was never enrolled gives an empty key and true. A file that others may read is refused.
[[nodiscard]] bool load_server_key(Server_Key& key, std::string& error);

/// What import_enrollment() would take over; writes nothing. `fresh` tells whether there is something to be
/// kept.
[[nodiscard]] bool read_enrollment(const std::string& path, Server_Key& key, bool& fresh, std::string& error);
/// Keeps a key in place of the former one.
[[nodiscard]] bool keep_server_key(const Server_Key& key, std::string& error);

/// Takes an enrollment file over. Afterwards the file is not needed any more, so that one that does not exist
/// is no error on a host that is enrolled. A newer file for the same host replaces the key; one for another
/// host is refused, since the backups of this host carry its identity.
/// Crash: the kept key is the former or the new one, whole.
[[nodiscard]] bool import_enrollment(const std::string& path, Server_Key& key, std::string& error);
} // namespace kestrel

#pragma once

#include "json/value.h"

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace kestrel
{
class Server_Database;

/// A host that was enrolled, with what its agent told last.
struct Host_Record {
  std::string uuid;
  std::string name;
  std::string key_hash;
  bool revoked = false;
  std::string version;
  std::string address;
  int64_t last_seen = 0; ///< seconds since 1970, 0 = never
  json_spirit::Array instances;
};

/// What the database keeps of the hosts.
/// Threads: any. Errors: throws what the database throws.
class Host_Store
{
public:
  explicit Host_Store(Server_Database& database) : database_(database) {}

  /// By name, revoked ones included.
  std::vector<Host_Record> load();
  /// Names and keys only, by uuid.
  std::map<std::string, Host_Record> identities();
  /// Whether the host may be connected with the key of this hash.
  bool is_admitted(const std::string& uuid, const std::string& key_hash);
  void save(const Host_Record& host);
  void seen(const std::string& uuid, int64_t when);

private:
  Server_Database& database_;
};
} // namespace kestrel

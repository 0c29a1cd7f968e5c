#pragma once

#include "json/value.h"
#include "rpc/rest_router.h"

#include <cstdint>
#include <string>

namespace kestrel
{
class Server_Database;

/// Who changed what on the server, or tried to.
/// Threads:   any.
/// Ownership: the database is not owned.
/// Errors:    throws what the database throws. Texts are cut to 512 bytes, control characters become blanks.
class Audit
{
public:
  explicit Audit(Server_Database& database) : database_(database) {}

  void add(const REST_Caller& caller, const std::string& method, const std::string& path,
           const std::string& what, int status);
  /// [{"id","time","caller","role","address","method","path","what","status"}], newest first; with `before`
  /// only entries with a smaller id.
  json_spirit::Array list(int64_t limit, int64_t before);
  /// Removes what is older.
  void prune(int keep_days);

private:
  Server_Database& database_;
};

/// The user of the operating system who runs a command on the server's own machine, as the audit names it:
/// "local:NAME".
REST_Caller local_caller();
} // namespace kestrel

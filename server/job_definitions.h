#pragma once

#include "server/cluster_round.h"
#include "json/value.h"

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

namespace kestrel
{
class Server_Database;

/// A job definition as the server keeps it.
struct Server_Definition {
  std::string id;
  int64_t revision = 0; ///< rises with every change, also over a removal
  bool enabled = true;
  std::vector<std::string> hosts; ///< uuids, without doubles
  json_spirit::Object document;
  int64_t changed_at = 0; ///< seconds since 1970
  std::string changed_by;

  bool on_host(const std::string& host_uuid) const;
  /// All its hosts run it, and one of them is chosen to do the work.
  bool for_cluster() const;
};
typedef std::shared_ptr<const Server_Definition> Server_Definition_Ptr;

/// Looks at the form of a definition's document, makes it whole (its id) and takes out what must not be kept
/// (a password). What only the module of its type understands is left to the agents.
/// Errors: false with `error` for the user; the document is unchanged then.
[[nodiscard]] bool check_definition(const std::string& id, json_spirit::Object& document, std::string& error);
/// The document's part of what is known of a cluster's job: kind, name, instance and address.
void read_cluster_job(const json_spirit::Object& document, Cluster_Job& job);

/// All job definitions: in memory, and durable in the database before a change returns.
/// Threads:   any.
/// Ownership: the database is not owned. Definitions handed out never change.
/// Errors:    throws what the database throws; nothing is changed then.
class Job_Definitions
{
public:
  enum class Result { done, exists, not_found, conflict };

  explicit Job_Definitions(Server_Database& database) : database_(database) {}

  void load();
  /// By id.
  std::vector<Server_Definition_Ptr> all() const;
  std::vector<Server_Definition_Ptr> of_host(const std::string& host_uuid) const;
  /// Null when there is none.
  Server_Definition_Ptr find(const std::string& id) const;

  /// Stores a new definition; gives it its revision and time.
  Result add(Server_Definition definition, Server_Definition_Ptr& stored);
  /// Replaces one. With `expected_revision` not 0 only when it still has that revision.
  Result change(Server_Definition definition, int64_t expected_revision, Server_Definition_Ptr& former,
                Server_Definition_Ptr& stored);
  Result remove(const std::string& id, const std::string& by, Server_Definition_Ptr& former);

private:
  void write(const Server_Definition& definition, bool removed);

  Server_Database& database_;
  std::mutex writing_; ///< taken before mutex_; held over the database
  mutable std::mutex mutex_;
  std::map<std::string, Server_Definition_Ptr> definitions_;
  std::map<std::string, int64_t> removed_; ///< last revisions
};
} // namespace kestrel

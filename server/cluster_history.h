#pragma once

#include "json/value.h"

#include <cstdint>
#include <exception>
#include <map>
#include <string>

namespace kestrel
{
class Server_Database;

/// The selections of cluster nodes and their explanations, as the database keeps them: the newest 1,000.
/// Threads: any.
/// Errors:  throws what the database throws.
/// Crash:   a selection under way stays "open" and is marked "interrupted" by the next start.
class Cluster_History
{
public:
  static constexpr int KEPT = 1000;

  explicit Cluster_History(Server_Database& database) : database_(database) {}

  /// Begins a selection. `selection_time` is `now`, or later when this definition's last one was not before
  /// it. Gives its number; numbers rise.
  int64_t open(const std::string& definition_uuid, int64_t now, int64_t& selection_time);
  /// Replaces what is kept of the selection. `record` has "state" and "host_uuid".
  void save(int64_t number, const json_spirit::Object& record, int64_t decided_at);
  /// Selections that a stopped server left behind. Their number.
  int64_t mark_interrupted();
  /// The number of the selection that chose each host last.
  std::map<std::string, int64_t> last_chosen();
  /// Newest first, at most `limit`; of one definition when one is given.
  json_spirit::Array list(int limit, const std::string& definition_uuid);
  /// For the log: what failed, without the values that the statement holds.
  std::string failure_text(const std::exception& failure) const;

private:
  Server_Database& database_;
};
} // namespace kestrel

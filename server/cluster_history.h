#pragma once

#include "json/value.h"

#include <cstdint>
#include <exception>
#include <map>
#include <string>
#include <vector>

namespace kestrel
{
class Server_Database;

/// The selections of cluster nodes and their explanations, as the database keeps them: the newest 1,000.
/// Threads: any.
/// Errors:  throws what the database throws.
/// Crash:   a selection under way stays "open" with what was kept of it last; the next start goes on with
///          it or marks it "interrupted".
class Cluster_History
{
public:
  static constexpr int KEPT = 1000;

  explicit Cluster_History(Server_Database& database) : database_(database) {}

  /// Begins a selection. `selection_time` is `now`, or later when this definition's last one was not before
  /// it. Gives its number; numbers rise.
  int64_t open(const std::string& definition_uuid, int64_t now, int64_t& selection_time);
  /// Replaces the explanation, which has "state" and "host_uuid", and what a next server must know.
  void save(int64_t number, const json_spirit::Object& record, const json_spirit::Object& kept,
            int64_t decided_at);

  struct Unfinished {
    int64_t number = 0;
    int64_t selection_time = 0;
    json_spirit::Value kept; ///< null when nothing was, or it cannot be read
  };
  /// Selections that a stopped server may have left unfinished, the oldest first.
  std::vector<Unfinished> unfinished();
  /// Nobody goes on with these: those not decided are marked "interrupted". How many.
  int64_t mark_over(const std::vector<int64_t>& numbers);
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

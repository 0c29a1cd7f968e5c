#pragma once

#include "json/value.h"

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace kestrel
{
class Server_Database;

/// Records of runs, as agents report them; kept when their definition is removed.
/// Threads: any. Errors: throws what the database throws.
class Run_Records
{
public:
  struct Filter {
    std::string definition_id;
    std::string host_uuid;
    std::string state;
    int limit = 100;
    size_t most_bytes = size_t(8) << 20; ///< of the records' texts
    /// Only runs that follow this one in the order of the list: its queued_at and run_id. Not with an empty
    /// id.
    int64_t before_queued_at = 0;
    std::string before_run_id;
  };
  struct Page {
    json_spirit::Array runs; ///< newest first; of those queued in the same second, by run_id
    bool truncated = false;  ///< it ends at `most_bytes`
    bool more = false;       ///< others follow
    int64_t last_queued_at = 0;
    std::string last_run_id; ///< of the last of these runs
  };
  struct Refusal {
    std::string run_id; ///< empty when the record has none
    std::string reason;
  };

  explicit Run_Records(Server_Database& database) : database_(database) {}

  /// Stores what an agent reports, in one transaction: a run that is stored already is replaced when the new
  /// record is as final. `stored` are those the agent need not report again; `refused` are not records, or
  /// of another host.
  void store(const std::string& host_uuid, const json_spirit::Array& records,
             std::vector<std::string>& stored, std::vector<Refusal>& refused);
  /// Stops before the records have more bytes than `most_bytes`, but for the first one. Runs that are
  /// reported meanwhile shift nothing: a page goes on where the last one ended.
  Page page(const Filter& filter);
  json_spirit::Array list(const Filter& filter) { return page(filter).runs; }
  /// A definition and a host.
  typedef std::pair<std::string, std::string> Node;
  /// "state", "queued_at" and "reason" of the newest run of each of these that has one. One query, which takes a
  /// few microseconds for each.
  std::map<Node, json_spirit::Object> newest(const std::vector<Node>& nodes);
  [[nodiscard]] bool find(const std::string& run_id, json_spirit::Value& record);
  /// Removes runs that ended before. How many.
  int64_t prune(int64_t before);

private:
  Server_Database& database_;
};
} // namespace kestrel

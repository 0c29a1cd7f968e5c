#pragma once

#include "json/value.h"

#include <map>
#include <set>
#include <string>

namespace kestrel
{
/// What one agent told about its jobs: the list of its greeting, and each change of state since.
/// Not for:  runs that have ended; their records come another way.
/// Threads:  the owner's lock.
/// Errors:   what an agent tells is foreign: parts that cannot be used are left out, and the number of jobs
///           is limited.
class Host_Jobs
{
public:
  static constexpr size_t JOB_LIMIT = 20000;

  /// After a new connection: nothing of before counts.
  void greeted(const json_spirit::Array& jobs);
  /// The present list. It does not count what runs: it may be older than the last change that was told.
  void listed(const json_spirit::Array& jobs);
  /// False when the message cannot be used.
  [[nodiscard]] bool changed(const json_spirit::Object& state);

  size_t running() const { return running_.size(); }
  bool runs(const std::string& definition_uuid) const { return running_.count(definition_uuid) > 0; }
  unsigned running_but(const std::string& definition_uuid) const;
  /// What was told of one job last: the members of its entry in the list, and "now" with the last state.
  json_spirit::Value job(const std::string& definition_uuid) const;
  /// The definition and the last state of a run that was told of.
  [[nodiscard]] bool find_run(const std::string& run_id, std::string& definition_uuid,
                              std::string& state) const;

private:
  struct Job {
    json_spirit::Object listed;
    json_spirit::Object now;
  };
  std::map<std::string, Job> jobs_; ///< by definition
  /// Definitions with a run under way: a host runs none of them twice, and tells only the newest state.
  std::set<std::string> running_;
};

/// Whether this word is the state of a run that has not ended.
bool run_under_way(const std::string& state);
} // namespace kestrel

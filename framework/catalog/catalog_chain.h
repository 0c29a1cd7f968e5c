#pragma once

#include <soci/soci.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

namespace kestrel
{
/// Judges the chains of the physical sets of an open catalog. What was looked up is kept, so that judging all
/// sets of a chain reads each of its links once.
/// Not thread-safe; sees one state of the catalog only within one transaction. Throws soci::soci_error.
class Chain_Judge
{
public:
  struct Verdict {
    size_t length = 0;   ///< sets that a restore reads; 0 when it cannot be done
    std::string problem; ///< why it cannot be done, in one sentence; else empty
  };

  explicit Chain_Judge(soci::session& session);
  ~Chain_Judge();
  Chain_Judge(const Chain_Judge&) = delete;
  Chain_Judge& operator=(const Chain_Judge&) = delete;

  /// Can be restored: every link is there and available, a differential set stands on a full one, and the
  /// chain does not run in a circle.
  Verdict judge(const std::string& resource_uuid, const std::string& backup_id);
  /// Backup ids of the sets that need this one directly, in commit order.
  std::vector<std::string> children(const std::string& resource_uuid, const std::string& backup_id);

private:
  struct Statements;
  struct Link;
  typedef std::pair<std::string, std::string> Key; // resource, backup id

  bool find(const Key& key, Link& link);

  const std::unique_ptr<Statements> statements_;
  std::map<Key, Verdict> verdicts_;
};
} // namespace kestrel

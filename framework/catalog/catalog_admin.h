#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kestrel
{
enum class Set_State {
  available,
  unavailable,
  /// Unavailable, and its deletion has begun: from there it becomes neither available nor unavailable,
  /// whatever is found out about its file; it only goes, or is spared.
  deleting,
  /// The deletion that had begun is called off: available without a reason, unavailable with one. Changes
  /// nothing when none had begun.
  spared
};

/// The changes that hosts make to stored records: what verification and expiry find out.
/// Threads, retries and crashes: as Catalog_Operator.
/// Errors:  false with one sentence in `error` (not logged); other out-parameters untouched.
class Catalog_Admin
{
public:
  /// `max_seconds_retry` as for Catalog_Operator.
  explicit Catalog_Admin(int max_seconds_retry = -1);

  /// `reason` is shown with the set ("state_reason") and may be empty. Chains through an unavailable set have
  /// no rows. Rows of one whose deletion has begun have "deletion_begun".
  [[nodiscard]] bool set_state(const std::string& uuid, Set_State state, const std::string& reason,
                               std::string& error);
  /// Removes the record only; the stored file is the caller's. Sets that build on it stay and cannot be
  /// restored.
  [[nodiscard]] bool remove(const std::string& uuid, std::string& error);
  /// Uuids of all sets whose chain runs through this one, nearest first.
  [[nodiscard]] bool dependents(const std::string& uuid, std::vector<std::string>& uuids, std::string& error);
  /// Number of sets with a storage in that pool.
  [[nodiscard]] bool count_by_pool(const std::string& pool_uuid, uint64_t& count, std::string& error);

private:
  int max_seconds_retry_;
};
} // namespace kestrel

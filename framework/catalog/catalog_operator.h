#pragma once

#include "catalog/backup_set.h"
#include "json/value.h"

#include <map>
#include <string>

/// Queries and fills the catalog of backup sets through the registered back end (catalog/catalog_back_end.h).
/// A catalog that is busy or cannot be reached is tried again until the retry time is over; every other
/// failure (damage, no space, no permission, a bad query) ends the call at once.
/// Threads: objects are cheap and hold no connection; use one per call or share it, both are safe.
/// Units:   seconds of the monotonic clock for the retry time.
/// Errors:  false after one line at LM_ERROR that names the catalog and the cure; out-parameters untouched.
/// Crash:   a commit is all or nothing; a commit that returned true survives a power failure.
class Catalog_Operator
{
public:
  /// `connection`: -1 is the default one, there is no other.
  /// `max_seconds_retry`: -1 is the default of catalog_retry_seconds(), which is finite; 0 tries once.
  Catalog_Operator(int connection, int max_seconds_retry);

  /// Fills `result` with an object: "rows" is an array of one flat object a backup set.
  ///
  /// Catalogs: "oscar_brcmd" (physical) and "oscar" (logical). Views:
  /// - "catalogs": every key of `query` that is a field of the rows must be equal; of "oscar", "database" and
  /// "grade"
  ///   select sets with a file of that database and level and "with_files" = true adds "backup_files".
  ///   Further keys: "sort" (a field; "start_time" and "backup_start_time" are the same), "order" ("asc", the
  ///   default, or "desc"), "limit" and "offset". Ties, and everything under an unknown sort key, stand in
  ///   commit order ("desc" with a known sort key, or with none, runs backwards through it, so that the
  ///   newest is first).
  ///   Of "oscar_brcmd", "with_chain" = true adds to each row what a tree of the chains needs:
  ///     "children"       backup_ids of the sets that need this one directly, in commit order;
  ///     "chain_length"   number of sets that a restore of this one reads, itself included; 0 = not
  ///     restorable; "chain_problem"  only when 0: one sentence, why.
  ///   The parent is "predecessor_id" (absent for a full backup), of the same "resource_uuid".
  /// - "catalog_sequences" (physical only): the chain that ends at "backup_id", in the order in which it must
  ///   be restored, the full backup first, whatever "order" says. "resource_uuid" is needed only where
  ///   several resources have a backup of this id. A missing link, a circle, a differential set on anything
  ///   but a full one, or a member that is not available gives no rows, and "problem" beside "rows" says why
  ///   in one sentence.
  ///
  /// In a row "state" is ["available"] or, when the stored file cannot be used any more, []; "state_reason"
  /// tells more. "predecessor_missing" is true for a set whose predecessor_id is not in the catalog: it and
  /// all that build on it cannot be restored. 64-bit numbers can be read with get_int64() and get_uint64();
  /// times are seconds since the epoch.
  /// "unreadable" is there only when the stored set is damaged, and says how; the fields concerned are
  /// missing, and the set must not be restored.
  [[nodiscard]] bool get_view(const char* catalog, const char* view,
                              const std::map<std::string, json_spirit::Value>& query,
                              json_spirit::Value& result);

  /// `must_be_new`: a set whose uuid is already in the catalog is refused; with false it counts as committed
  /// and the stored record stays, for callers that repeat a commit whose answer they lost. What this call
  /// itself has written before its connection broke off is not refused when it is tried again. An incremental
  /// or differential set whose predecessor is not in the catalog is stored, flagged in the field
  /// "predecessor_missing" and reported at LM_WARNING: it cannot be restored. So is, without the flag, one
  /// whose chain is broken or not available further back.
  [[nodiscard]] bool commit(const Backup_Set& set, bool must_be_new);

private:
  int connection_;
  int max_seconds_retry_;
};

/// A stable name for "backups of this type of this resource"; false, with minor_id untouched, on an empty
/// argument.
[[nodiscard]] bool compute_minor_resource_id(const std::string& resource, const std::string& backup_type,
                                             std::string& minor_id);

namespace kestrel
{
/// Seconds that an operator constructed with -1 keeps trying; 300 unless set.
int catalog_retry_seconds();
void set_catalog_retry_seconds(int seconds);
} // namespace kestrel

#pragma once

#include "catalog/backup_record.h"
#include "catalog/catalog_query.h"

#include <soci/soci.h>

#include <string>
#include <vector>

namespace kestrel
{
/// A record checked and laid out for the tables. The constructor throws std::invalid_argument with a text for
/// the user on a record that the catalog cannot keep; nothing has been written then.
class Commit_Row
{
public:
  explicit Commit_Row(const Backup_Record& record);

  const std::string& uuid() const { return uuid_; }
  const std::string& resource_uuid() const { return resource_uuid_; }
  /// The backup that must be restored first; empty for a full backup.
  const std::string& predecessor_id() const { return predecessor_id_; }

  /// True when the resource already has a set of this uuid.
  bool is_recorded(soci::session& session) const;
  /// True when another set already has this set's archive: the same number of the same kind in the same pool.
  bool is_archive_recorded(soci::session& session) const;
  /// Inserts the set and what belongs to it; the caller holds a write transaction. True when the set has a
  /// predecessor that the catalog does not have. Throws soci::soci_error.
  bool insert(soci::session& session) const;

private:
  void add_field(const std::string& name, const json_spirit::Value& value);
  void add_text(const char* column, const std::string& text);
  void add_number(const char* column, uint64_t number);
  void find_predecessor();
  std::string field_text(const char* name) const;
  bool predecessor_missing(soci::session& session) const;

  const Backup_Record& record_;
  unsigned catalog_;
  std::string uuid_;
  std::string resource_uuid_;
  std::string predecessor_id_;
  std::vector<std::string> columns_;
  std::vector<Sql_Value> values_;
};

/// Keeps "predecessor_missing" true of the physical sets that need this one directly. Throws
/// soci::soci_error.
void flag_children(soci::session& session, const std::string& resource_uuid, const std::string& backup_id,
                   bool predecessor_missing);
} // namespace kestrel

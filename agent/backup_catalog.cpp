#include "agent/backup_catalog.h"

#include "agent/catalog_view.h"

#include <set>

namespace kestrel
{
namespace
{
typedef Catalog_View_Query Query;

void fill_entry(const json_spirit::Object& row, Backup_Entry& entry)
{
  // First what a list needs, also of a record that is damaged further on.
  entry.id = required<std::string>(row, "uuid");
  entry.resource_uuid = required<std::string>(row, "resource_uuid");
  entry.start_time = static_cast<time_t>(value_or_default<int64_t>(row, "start_time"));
  entry.predecessor_id = value_or_default<std::string>(row, "predecessor_id");
  entry.level = required<std::string>(row, "type");
  entry.name = value_or_default<std::string>(row, "name");
  entry.uri = required<std::string>(row, "uri");
  entry.pool_uuid = required<std::string>(row, "pool_uuid");
  entry.file = required<std::string>(row, "backup_file");
  entry.compression = value_or_default<std::string>(row, "compression");
  entry.size = number_of_row(row, "backup_set_size");
  entry.stored_size = number_of_row(row, "backup_set_storage_size");
  entry.pump_size = number_of_row(row, "pump_size");
  entry.pump_checksum = value_or_default<std::string>(row, "pump_checksum");
  entry.original_checksum = value_or_default<std::string>(row, "original_checksum");
  entry.storage_checksum = value_or_default<std::string>(row, "storage_checksum");
  entry.end_time = static_cast<time_t>(value_or_default<int64_t>(row, "end_time"));
  entry.available = !value_or_default<json_spirit::Array>(row, "state").empty();
  entry.state_reason = value_or_default<std::string>(row, "state_reason");
  entry.deleting = value_or_default<bool>(row, "deletion_begun");
  entry.predecessor_missing = value_or_default<bool>(row, "predecessor_missing");
  entry.full_backup_id = value_or_default<std::string>(row, "full_backup_id");
  entry.lsn = number_of_row(row, "backup_lsn");
  entry.scn = number_of_row(row, "backup_scn");
  for (const json_spirit::Value& child : value_or_default<json_spirit::Array>(row, "children"))
    entry.children.push_back(child.get_str());
  entry.chain_length = number_of_row(row, "chain_length");
  entry.chain_problem = value_or_default<std::string>(row, "chain_problem");
}

/// `problem` may be null; it gets what the view says of an empty answer.
bool query_entries(const char* view, const Query& query, std::vector<Backup_Entry>& backups,
                   std::string& error, std::string* problem = nullptr)
{
  try {
    json_spirit::Object answer;
    if (!query_catalog("oscar_brcmd", view, query, answer, error))
      return false;
    std::vector<Backup_Entry> found = entries_of(answer, fill_entry);
    for (Backup_Entry& entry : found)
      if (!entry.damage.empty()) {
        entry.chain_length = 0;
        entry.chain_problem = "Backup " + entry.id + " is not available: " + entry.state_reason;
      }
    backups.swap(found);
    if (problem)
      *problem = value_or_default<std::string>(answer, "problem");
    return true;
  } catch (const std::exception& exception) {
    error = std::string("the catalog gave an answer of the wrong shape: ") + exception.what();
    return false;
  }
}

bool resolve_latest(const std::string& resource_uuid, Backup_Entry& backup, std::string& error)
{
  Query fields;
  if (!resource_uuid.empty())
    fields["resource_uuid"] = resource_uuid;
  std::vector<Backup_Entry> found;
  if (!list_backups(fields, resource_uuid.empty() ? 0 : 1, found, error))
    return false;
  std::set<std::string> resources;
  for (const Backup_Entry& entry : found)
    resources.insert(entry.resource_uuid);
  if (found.empty()) {
    error = resource_uuid.empty() ? "there is no backup yet" : "there is no backup of this instance";
    return false;
  }
  if (resources.size() > 1) {
    error = "several instances have backups; say which one with --instance NAME";
    return false;
  }
  backup = found.front();
  return true;
}
} // namespace

bool list_backups(const std::map<std::string, json_spirit::Value>& fields, uint64_t limit,
                  std::vector<Backup_Entry>& backups, std::string& error)
{
  Query query = fields;
  query["sort"] = "start_time";
  query["order"] = "desc";
  query["with_chain"] = true;
  if (limit)
    query["limit"] = limit;
  return query_entries("catalogs", query, backups, error);
}

bool last_committed_backup(const std::string& resource_uuid, std::vector<Backup_Entry>& backup,
                           std::string& error)
{
  // Without a sort key the rows stand in commit order.
  return query_entries(
      "catalogs", {{"resource_uuid", resource_uuid}, {"order", "desc"}, {"limit", 1}, {"with_chain", true}},
      backup, error);
}

bool backup_sequence(const Backup_Entry& backup, std::vector<Backup_Entry>& backups, std::string& problem,
                     std::string& error)
{
  std::vector<Backup_Entry> found;
  std::string broken;
  if (!query_entries("catalog_sequences",
                     {{"backup_id", backup.id}, {"resource_uuid", backup.resource_uuid}, {"order", "desc"}},
                     found, error, &broken))
    return false;
  for (const Backup_Entry& entry : found)
    if (!entry.damage.empty())
      broken = entry.chain_problem;
  if (!broken.empty())
    found.clear();
  backups.swap(found);
  problem = broken;
  return true;
}

bool known_chain(const Backup_Entry& backup, std::vector<Backup_Entry>& backups, std::string& error)
{
  std::vector<Backup_Entry> newest_first = {backup};
  std::set<std::string> seen = {backup.id};
  while (!newest_first.back().predecessor_id.empty()) {
    const std::string wanted = newest_first.back().predecessor_id;
    std::vector<Backup_Entry> found;
    if (!query_entries("catalogs", {{"backup_id", wanted}, {"resource_uuid", backup.resource_uuid}}, found,
                       error))
      return false;
    if (found.empty() || !seen.insert(wanted).second)
      break;
    newest_first.push_back(found.front());
  }
  backups.assign(newest_first.rbegin(), newest_first.rend());
  return true;
}

bool resolve_backup(const std::string& reference, const std::string& resource_uuid, Backup_Entry& backup,
                    std::string& error)
{
  if (reference == "latest")
    return resolve_latest(resource_uuid, backup, error);
  std::vector<Backup_Entry> found;
  if (!list_backups({{"uuid", reference}}, 0, found, error))
    return false;
  if (found.empty() && !reference.empty()) {
    std::vector<Backup_Entry> all;
    if (!list_backups({}, 0, all, error))
      return false;
    for (const Backup_Entry& entry : all)
      if (entry.id.compare(0, reference.size(), reference) == 0)
        found.push_back(entry);
  }
  if (found.empty()) {
    error = "there is no backup " + reference + "; kestrel backups lists them";
    return false;
  }
  if (found.size() > 1) {
    error = std::to_string(found.size()) + " backups begin with " + reference + "; give more of the id";
    return false;
  }
  backup = found.front();
  return true;
}
} // namespace kestrel

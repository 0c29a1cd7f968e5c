#include "catalog/catalog_repeat.h"

#include "json/json_util.h"

namespace kestrel
{
namespace
{
using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;

bool is_same(const Value& stored, const Value& sent)
{
  if (stored.type() == json_spirit::int_type && sent.type() == json_spirit::int_type)
    return stored.get_uint64() == sent.get_uint64();
  return stored == sent;
}

bool is_same_record(const Object& row, const Backup_Record& record)
{
  for (const auto& [name, value] : record.fields) {
    const Value& stored = json_spirit::find_value(row, name);
    if (!stored.is_null() && !is_same(stored, value))
      return false;
  }
  if (record.storages.empty())
    return true;
  return is_same(json_spirit::find_value(row, "pool_uuid"), record.storages.front().pool_uuid) &&
         is_same(json_spirit::find_value(row, "backup_set_storage_size"), record.storages.front().size);
}

std::string text_field(const Backup_Record& record, const char* name)
{
  const auto found = record.fields.find(name);
  return found == record.fields.end() ? std::string() : found->second.get_str();
}
} // namespace

Catalog_Status find_same_record(Catalog_Back_End& catalog, const Backup_Record& record, bool& found,
                                std::string& error)
{
  Value result;
  const Catalog_Status status = catalog.get_view(
      record.catalog, "catalogs",
      {{"uuid", text_field(record, "uuid")}, {"resource_uuid", text_field(record, "resource_uuid")}}, result,
      error);
  if (status != Catalog_Status::done)
    return status;
  const Array rows = required<Array>(result.get_obj(), "rows");
  found = rows.size() == 1 && is_same_record(rows.front().get_obj(), record);
  return status;
}

// The commit comes before the look: it waits for an earlier one that the database is still busy with.
Catalog_Status commit_again(Catalog_Back_End& catalog, const Backup_Record& record, bool must_be_new,
                            bool repeated, std::string& warning, std::string& error)
{
  const Catalog_Status status = catalog.commit(record, must_be_new, warning, error);
  if (status != Catalog_Status::failed || !repeated)
    return status;
  bool recorded = false;
  std::string problem;
  const Catalog_Status looked = find_same_record(catalog, record, recorded, problem);
  if (looked == Catalog_Status::busy) {
    error = problem;
    return looked;
  }
  return recorded ? Catalog_Status::done : status;
}
} // namespace kestrel

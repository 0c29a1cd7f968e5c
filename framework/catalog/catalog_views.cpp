#include "catalog/catalog_views.h"

#include "catalog/catalog_chain.h"
#include "catalog/catalog_rows.h"

#include <algorithm>
#include <memory>
#include <stdexcept>

namespace kestrel
{
namespace
{
/// The "backup_files" of one set after the other, with one prepared statement.
class File_Reader
{
public:
  explicit File_Reader(soci::session& session) : statement_(session)
  {
    statement_.alloc();
    statement_.prepare("SELECT database_name, schema_name, table_name, file_name, grade, checksum, size"
                       " FROM backup_set_file WHERE set_id = :v0 ORDER BY position");
    for (std::string& column : columns_)
      statement_.exchange(soci::into(column));
    statement_.exchange(soci::into(size_));
    statement_.exchange(soci::use(set_id_, "v0"));
    statement_.define_and_bind();
  }

  json_spirit::Array read(long long set_id)
  {
    static const char* const names[] = {"database", "schema", "table", "file", "grade", "checksum"};
    set_id_ = set_id;
    json_spirit::Array files;
    statement_.execute(false);
    while (statement_.fetch()) {
      json_spirit::Object file;
      for (size_t i = 0; i < std::size(names); ++i)
        file.emplace_back(names[i], columns_[i]);
      file.emplace_back("size", static_cast<uint64_t>(size_));
      files.push_back(std::move(file));
    }
    return files;
  }

private:
  std::string columns_[6];
  long long size_ = 0;
  long long set_id_ = 0;
  soci::statement statement_;
};

std::string query_text(const std::map<std::string, json_spirit::Value>& query, const char* key)
{
  const auto found = query.find(key);
  if (found == query.end())
    return std::string();
  if (found->second.type() != json_spirit::str_type)
    throw std::invalid_argument(std::string("The catalog query's key '") + key + "' must be a text");
  return found->second.get_str();
}

/// The resource that has this backup, "" when none has. False when several have one of this id.
bool find_resource(soci::session& session, const std::string& catalog, const std::string& backup_id,
                   std::string& resource)
{
  long long number = 0;
  soci::indicator found = soci::i_null;
  session << "SELECT count(*), max(resource_uuid) FROM backup_set WHERE catalog = :c AND backup_id = :b",
      soci::use(catalog, "c"), soci::use(backup_id, "b"), soci::into(number), soci::into(resource, found);
  if (found != soci::i_ok)
    resource.clear();
  return number < 2;
}

/// Follows the chain from its end to the full backup. Returns why it cannot be restored; empty when it can.
std::string walk_chain(soci::session& session, const std::string& catalog, const std::string& backup_id,
                       std::string resource_uuid, json_spirit::Array& newest_first)
{
  if (resource_uuid.empty() && !find_resource(session, catalog, backup_id, resource_uuid))
    return "Several resources have a backup " + backup_id + ": say which with resource_uuid";
  const std::string problem = Chain_Judge(session).judge(resource_uuid, backup_id).problem;
  if (!problem.empty())
    return problem;
  const unsigned bit = catalog_bit(catalog);
  std::vector<Sql_Value> values = {{true, catalog, 0}, {true, backup_id, 0}, {true, resource_uuid, 0}};
  Catalog_Row_Reader link(session, bit,
                          "SELECT " + catalog_row_columns(bit) +
                              " FROM backup_set s WHERE s.catalog = :v0 AND s.backup_id = :v1 AND "
                              "s.resource_uuid = :v2",
                          values);
  while (link.fetch()) {
    newest_first.push_back(link.row());
    values[1].text = link.text("predecessor_id");
    if (values[1].text.empty())
      break;
    link.execute(values);
  }
  return std::string();
}

/// "" when the row has no such text.
std::string row_text(const json_spirit::Object& row, const char* key)
{
  const json_spirit::Value& value = json_spirit::find_value(row, key);
  return value.type() == json_spirit::str_type ? value.get_str() : std::string();
}

/// What "with_chain" adds to a row.
void add_chain(Chain_Judge& judge, json_spirit::Object& row)
{
  const std::string resource = row_text(row, "resource_uuid");
  const std::string backup_id = row_text(row, "backup_id");
  json_spirit::Array children;
  for (const std::string& id : judge.children(resource, backup_id))
    children.push_back(id);
  const Chain_Judge::Verdict verdict = judge.judge(resource, backup_id);
  row.emplace_back("children", std::move(children));
  row.emplace_back("chain_length", static_cast<unsigned long long>(verdict.length));
  if (!verdict.problem.empty())
    row.emplace_back("chain_problem", verdict.problem);
}
} // namespace

json_spirit::Object catalogs_view(soci::session& session, const std::string& catalog,
                                  const std::map<std::string, json_spirit::Value>& query)
{
  const Catalog_Query compiled = make_catalog_query(catalog, query);
  Catalog_Row_Reader reader(session, compiled.catalog, compiled.sql, compiled.values);
  std::unique_ptr<File_Reader> files;
  if (compiled.with_files && compiled.catalog == logical_catalog)
    files = std::make_unique<File_Reader>(session);
  std::unique_ptr<Chain_Judge> judge;
  if (compiled.with_chain)
    judge = std::make_unique<Chain_Judge>(session);
  json_spirit::Array rows;
  while (reader.fetch()) {
    json_spirit::Object row = reader.row();
    if (files)
      row.emplace_back("backup_files", files->read(reader.set_id()));
    if (judge)
      add_chain(*judge, row);
    rows.push_back(std::move(row));
  }
  json_spirit::Object result;
  result.emplace_back("rows", std::move(rows));
  return result;
}

json_spirit::Object sequences_view(soci::session& session, const std::string& catalog,
                                   const std::map<std::string, json_spirit::Value>& query)
{
  if (catalog_bit(catalog) != brcmd_catalog)
    throw std::invalid_argument("The catalog '" + catalog + "' has no view 'catalog_sequences'");
  for (const auto& [key, value] : query)
    if (key != "backup_id" && key != "resource_uuid" && key != "sort" && key != "order")
      throw std::invalid_argument("The view 'catalog_sequences' does not know the key '" + key + "'");
  const std::string backup_id = query_text(query, "backup_id");
  if (backup_id.empty())
    throw std::invalid_argument("The view 'catalog_sequences' needs a 'backup_id'");
  json_spirit::Array rows;
  const std::string problem =
      walk_chain(session, catalog, backup_id, query_text(query, "resource_uuid"), rows);
  if (!problem.empty())
    rows.clear();
  std::reverse(rows.begin(), rows.end());
  json_spirit::Object result;
  result.emplace_back("rows", std::move(rows));
  if (!problem.empty())
    result.emplace_back("problem", problem);
  return result;
}
} // namespace kestrel

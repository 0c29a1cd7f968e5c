#include "server/job_definitions.h"

#include "base/clock.h"
#include "server/server_database.h"
#include "json/json_util.h"

#include <algorithm>
#include <stdexcept>

namespace kestrel
{
namespace
{
json_spirit::Array to_array(const std::vector<std::string>& texts)
{
  return json_spirit::Array(texts.begin(), texts.end());
}

/// What the database holds was checked when it was written.
Server_Definition_Ptr read_row(const soci::row& row)
{
  auto definition = std::make_shared<Server_Definition>();
  json_spirit::Value hosts, document;
  std::string error;
  definition->id = row.get<std::string>(0);
  definition->revision = std::stoll(row.get<std::string>(1));
  definition->enabled = row.get<std::string>(2) != "0";
  if (!read_json(row.get<std::string>(3), hosts, error) ||
      !read_json(row.get<std::string>(4), document, error))
    throw std::runtime_error("the definition " + definition->id + " in the database is damaged: " + error);
  for (const json_spirit::Value& host : hosts.get_array())
    definition->hosts.push_back(host.get_str());
  definition->document = document.get_obj();
  definition->changed_at = std::stoll(row.get<std::string>(5));
  definition->changed_by = row.get<std::string>(6);
  return definition;
}
} // namespace

bool Server_Definition::on_host(const std::string& host_uuid) const
{
  return std::find(hosts.begin(), hosts.end(), host_uuid) != hosts.end();
}

bool Server_Definition::for_cluster() const
{
  const json_spirit::Value& form = json_spirit::find_value(document, "rsrc_form");
  return form.type() == json_spirit::str_type && !form.get_str().empty();
}

void Job_Definitions::load()
{
  std::map<std::string, Server_Definition_Ptr> definitions;
  std::map<std::string, int64_t> removed;
  Server_Database::Lease session = database_.lease();
  const soci::rowset<soci::row> rows =
      (session->prepare << "SELECT id, CAST(revision AS TEXT), CAST(enabled AS TEXT), hosts, document,"
                           " CAST(changed_at AS TEXT), changed_by, CAST(removed AS TEXT) FROM definition");
  for (const soci::row& row : rows) {
    const std::string id = row.get<std::string>(0);
    if (row.get<std::string>(7) != "0")
      removed[id] = std::stoll(row.get<std::string>(1));
    else
      definitions[id] = read_row(row);
  }
  const std::lock_guard<std::mutex> guard(mutex_);
  definitions_ = std::move(definitions);
  removed_ = std::move(removed);
}

std::vector<Server_Definition_Ptr> Job_Definitions::all() const
{
  std::vector<Server_Definition_Ptr> all;
  const std::lock_guard<std::mutex> guard(mutex_);
  for (const auto& [id, definition] : definitions_)
    all.push_back(definition);
  return all;
}

std::vector<Server_Definition_Ptr> Job_Definitions::of_host(const std::string& host_uuid) const
{
  std::vector<Server_Definition_Ptr> found;
  const std::lock_guard<std::mutex> guard(mutex_);
  for (const auto& [id, definition] : definitions_)
    if (definition->on_host(host_uuid))
      found.push_back(definition);
  return found;
}

Server_Definition_Ptr Job_Definitions::find(const std::string& id) const
{
  const std::lock_guard<std::mutex> guard(mutex_);
  const auto found = definitions_.find(id);
  return found == definitions_.end() ? Server_Definition_Ptr() : found->second;
}

void Job_Definitions::write(const Server_Definition& definition, bool removed)
{
  const std::string hosts = write_json(to_array(definition.hosts));
  const std::string document = write_json(definition.document);
  const long long revision = definition.revision;
  const long long changed_at = definition.changed_at;
  const int enabled = definition.enabled;
  const int gone = removed;
  Server_Database::Lease session = database_.lease();
  *session << "INSERT OR REPLACE INTO definition (id, revision, enabled, hosts, document, changed_at,"
              " changed_by, removed) VALUES (:i, :r, :e, :h, :d, :t, :b, :x)",
      soci::use(definition.id, "i"), soci::use(revision, "r"), soci::use(enabled, "e"),
      soci::use(hosts, "h"), soci::use(document, "d"), soci::use(changed_at, "t"),
      soci::use(definition.changed_by, "b"), soci::use(gone, "x");
}

Job_Definitions::Result Job_Definitions::add(Server_Definition definition, Server_Definition_Ptr& stored)
{
  const std::lock_guard<std::mutex> one_at_a_time(writing_);
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    if (definitions_.count(definition.id) > 0)
      return Result::exists;
    const auto former = removed_.find(definition.id);
    definition.revision = former == removed_.end() ? 1 : former->second + 1;
  }
  definition.changed_at = clock().now();
  write(definition, false);
  stored = std::make_shared<Server_Definition>(std::move(definition));
  const std::lock_guard<std::mutex> guard(mutex_);
  removed_.erase(stored->id);
  definitions_[stored->id] = stored;
  return Result::done;
}

Job_Definitions::Result Job_Definitions::change(Server_Definition definition, int64_t expected_revision,
                                                Server_Definition_Ptr& former, Server_Definition_Ptr& stored)
{
  const std::lock_guard<std::mutex> one_at_a_time(writing_);
  former = find(definition.id);
  if (!former)
    return Result::not_found;
  if (expected_revision != 0 && expected_revision != former->revision)
    return Result::conflict;
  definition.revision = former->revision + 1;
  definition.changed_at = clock().now();
  write(definition, false);
  stored = std::make_shared<Server_Definition>(std::move(definition));
  const std::lock_guard<std::mutex> guard(mutex_);
  definitions_[stored->id] = stored;
  return Result::done;
}

Job_Definitions::Result Job_Definitions::remove(const std::string& id, const std::string& by,
                                                Server_Definition_Ptr& former)
{
  const std::lock_guard<std::mutex> one_at_a_time(writing_);
  former = find(id);
  if (!former)
    return Result::not_found;
  Server_Definition gone;
  gone.id = id;
  gone.revision = former->revision;
  gone.enabled = false;
  gone.changed_at = clock().now();
  gone.changed_by = by;
  write(gone, true);
  const std::lock_guard<std::mutex> guard(mutex_);
  removed_[id] = gone.revision;
  definitions_.erase(id);
  return Result::done;
}
} // namespace kestrel

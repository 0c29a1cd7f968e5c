#include "remote/remote_catalog.h"

#include "json/json_util.h"
#include "remote/record_json.h"

#include <algorithm>
#include <exception>
#include <limits>

namespace kestrel
{
namespace
{
using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;

const uint64_t PAGE_ROWS = 2000;
const unsigned VIEW_SECONDS = 60;
const size_t MOST_UNANSWERED = 10000;
const int NOT_FOUND = 404;
const int TOO_LARGE = 413;

Catalog_Status status_of(const REST_Problem& problem)
{
  switch (problem.kind) {
  case REST_Problem::unreachable:
  case REST_Problem::lost:
  case REST_Problem::busy:
    return Catalog_Status::busy;
  default:
    return Catalog_Status::failed;
  }
}

std::string text_field(const Backup_Record& record, const char* name)
{
  const auto found = record.fields.find(name);
  return found != record.fields.end() && found->second.type() == json_spirit::str_type
             ? found->second.get_str()
             : std::string();
}

std::string set_key(const Backup_Record& record)
{
  return record.catalog + '\n' + text_field(record, "uuid") + '\n' + text_field(record, "resource_uuid");
}

/// What tells one row from the others.
std::string row_key(const Object& row)
{
  std::string key;
  for (const char* name : {"uuid", "resource_uuid"}) {
    const Value& value = json_spirit::find_value(row, name);
    key += (value.type() == json_spirit::str_type ? value.get_str() : std::string()) + '\n';
  }
  return key;
}

/// Throws when the answer is no view's.
Array& rows_of(Object& answer)
{
  for (json_spirit::Pair& pair : answer)
    if (pair.name_ == "rows")
      return pair.value_.get_array();
  throw std::runtime_error("it has no rows");
}

/// Takes a number out of the query; false when it is there but none.
bool take_number(Object& query, const char* name, uint64_t& number)
{
  const auto found = std::find_if(query.begin(), query.end(),
                                  [name](const json_spirit::Pair& pair) { return pair.name_ == name; });
  if (found == query.end())
    return true;
  if (found->value_.type() != json_spirit::int_type || found->value_.get_int64() < 0)
    return false;
  number = found->value_.get_uint64();
  query.erase(found);
  return true;
}
} // namespace

Remote_Catalog::Remote_Catalog(std::shared_ptr<REST_Client> client, bool read_only)
    : client_(std::move(client)), read_only_(read_only)
{
}

/// One request; take(reply) reads the answer and may throw.
template <class Take>
Catalog_Status Remote_Catalog::ask(REST_Call& call, const Value* body, std::string& error, Take take,
                                   bool& missing)
{
  try {
    Value reply;
    REST_Problem problem;
    call.seconds = VIEW_SECONDS;
    if (!client_->call(call, body, reply, problem)) {
      error = "the catalog: " + problem.text;
      missing = problem.status == NOT_FOUND;
      return status_of(problem);
    }
    take(reply);
    return Catalog_Status::done;
  } catch (const std::exception& failure) {
    error = "the catalog: the answer of the backup server " + client_->url() +
            " cannot be used: " + failure.what();
    return Catalog_Status::failed;
  }
}

/// The same for a request that changes the catalog. `key` names what it does, so that its repetition is known.
template <class Act>
Catalog_Status Remote_Catalog::change(const std::string& key, std::string& error, Act act)
{
  bool repeated = false;
  {
    std::lock_guard<std::mutex> guard(lock_);
    repeated = unanswered_.count(key) != 0;
  }
  const Catalog_Status status = read_only_ ? refuse_change(error) : act(repeated);
  std::lock_guard<std::mutex> guard(lock_);
  if (status != Catalog_Status::busy)
    unanswered_.erase(key);
  else if (unanswered_.size() < MOST_UNANSWERED)
    unanswered_.insert(key);
  return status;
}

Catalog_Status Remote_Catalog::refuse_change(std::string& error) const
{
  error = "the catalog of the backup server " + client_->url() + " can only be read from here";
  return Catalog_Status::failed;
}

Catalog_Status Remote_Catalog::get_page(const std::string& path, const Object& query, Object& answer,
                                        bool& too_long, std::string& error)
{
  REST_Call call;
  call.method = "POST";
  call.path = path;
  call.seconds = VIEW_SECONDS;
  const Value body = query;
  Value reply;
  REST_Problem problem;
  if (!client_->call(call, &body, reply, problem)) {
    too_long = problem.status == TOO_LARGE;
    error = "the catalog: " + problem.text;
    return status_of(problem);
  }
  rows_of(reply.get_obj());
  answer = std::move(reply.get_obj());
  return Catalog_Status::done;
}

Catalog_Status Remote_Catalog::get_all(const std::string& path, const Object& query, uint64_t limit,
                                       uint64_t offset, Value& result, std::string& error)
{
  Array rows;
  std::set<std::string> seen;
  uint64_t page = PAGE_ROWS;
  for (uint64_t got = 0; got < limit;) {
    const uint64_t wanted = std::min(page, limit - got);
    Object part = query;
    part.emplace_back("limit", wanted);
    part.emplace_back("offset", offset + got);
    Object answer;
    bool too_long = false;
    const Catalog_Status status = get_page(path, part, answer, too_long, error);
    if (too_long && wanted > 1) {
      page = wanted / 2;
      continue;
    }
    if (status != Catalog_Status::done)
      return status;
    Array& new_rows = rows_of(answer);
    for (Value& row : new_rows)
      if (seen.insert(row_key(row.get_obj())).second)
        rows.push_back(std::move(row));
    got += new_rows.size();
    if (new_rows.size() < wanted)
      break;
  }
  result = Object{{"rows", std::move(rows)}};
  return Catalog_Status::done;
}

Catalog_Status Remote_Catalog::get_view(const std::string& catalog, const std::string& view,
                                        const std::map<std::string, Value>& query, Value& result,
                                        std::string& error)
{
  try {
    const std::string path = rest_path({"catalogs", catalog, view});
    Object body;
    for (const auto& [name, value] : query)
      body.emplace_back(name, value);
    uint64_t limit = std::numeric_limits<uint64_t>::max(), offset = 0;
    Object rest = body;
    // What the server would refuse it is to refuse.
    if (view == "catalogs" && take_number(rest, "limit", limit) && take_number(rest, "offset", offset) &&
        limit != 0)
      return get_all(path, rest, limit, offset, result, error);
    Object answer;
    bool too_long = false;
    const Catalog_Status status = get_page(path, body, answer, too_long, error);
    if (status == Catalog_Status::done)
      result = std::move(answer);
    return status;
  } catch (const std::exception& failure) {
    error = "the catalog: the answer of the backup server " + client_->url() +
            " cannot be used: " + failure.what();
    return Catalog_Status::failed;
  }
}

Catalog_Status Remote_Catalog::commit(const Backup_Record& record, bool must_be_new, std::string& warning,
                                      std::string& error)
{
  return change(set_key(record), error, [&](bool repeated) {
    REST_Call call;
    call.method = "POST";
    call.path = rest_path({"catalogs"});
    const Value body = Object{
        {"record", backup_record_json(record)}, {"must_be_new", must_be_new}, {"repeated", repeated}};
    bool missing = false;
    const auto take = [&](const Value& reply) {
      std::string text;
      optional(reply.get_obj(), "warning", text);
      warning.swap(text);
    };
    return ask(call, &body, error, take, missing);
  });
}

Catalog_Status Remote_Catalog::set_state(const std::string& uuid, Set_State state, const std::string& reason,
                                         std::string& error)
{
  if (state == Set_State::deleting || state == Set_State::spared) {
    error = "The backups of a server are deleted by the server itself: kestrel --server ... delete " + uuid;
    return Catalog_Status::failed;
  }
  return change("state\n" + uuid, error, [&](bool) {
    REST_Call call;
    call.method = "POST";
    call.path = rest_path({"catalogs", "sets", uuid, "state"});
    const Value body = Object{{"state", state == Set_State::available ? "available" : "unavailable"},
                              {"reason", reason}};
    bool missing = false;
    return ask(call, &body, error, [](const Value&) {}, missing);
  });
}

Catalog_Status Remote_Catalog::remove(const std::string& uuid, std::string& error)
{
  return change("remove\n" + uuid, error, [&](bool repeated) {
    REST_Call call;
    call.method = "DELETE";
    call.path = rest_path({"catalogs", "sets", uuid});
    bool missing = false;
    const Catalog_Status status = ask(call, nullptr, error, [](const Value&) {}, missing);
    return repeated && missing ? Catalog_Status::done : status;
  });
}

Catalog_Status Remote_Catalog::dependents(const std::string& uuid, std::vector<std::string>& uuids,
                                          std::string& error)
{
  REST_Call call;
  call.path = rest_path({"catalogs", "sets", uuid, "dependents"});
  bool missing = false;
  const auto take = [&](const Value& reply) {
    std::vector<std::string> found;
    for (const Value& each : required<Array>(reply.get_obj(), "uuids"))
      found.push_back(each.get_str());
    uuids.swap(found);
  };
  return ask(call, nullptr, error, take, missing);
}

Catalog_Status Remote_Catalog::count_by_pool(const std::string& pool_uuid, uint64_t& count,
                                             std::string& error)
{
  REST_Call call;
  call.path = rest_path({"pools", pool_uuid, "count"});
  bool missing = false;
  const auto take = [&](const Value& reply) { count = required<uint64_t>(reply.get_obj(), "count"); };
  return ask(call, nullptr, error, take, missing);
}
} // namespace kestrel

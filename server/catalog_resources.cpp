#include "server/catalog_resources.h"

#include "catalog/catalog_repeat.h"
#include "remote/record_json.h"
#include "json/json_util.h"

#include <ace/Log_Msg.h>

namespace kestrel
{
namespace
{
using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;

/// Clients take 16 MiB; the rest is for what stands around it.
const size_t MOST_ANSWER_BYTES = 15u << 20;

const int RETRY_SECONDS = 5;

const char* const CATALOGS[] = {"oscar_brcmd", "oscar"};

std::string text_field(const Backup_Record& record, const char* name)
{
  const auto found = record.fields.find(name);
  return found == record.fields.end() ? std::string() : found->second.get_str();
}
} // namespace

void check_catalog(Catalog_Status status, const std::string& error)
{
  if (status == Catalog_Status::busy)
    throw REST_Error(503, "busy", error, RETRY_SECONDS);
  if (status == Catalog_Status::broken) {
    ACE_ERROR((LM_ERROR, "(%P|%t) Catalog_Resources: %C\n", error.c_str()));
    throw REST_Error(503, "catalog_failed", error, RETRY_SECONDS);
  }
  if (status == Catalog_Status::failed)
    throw REST_Error(422, "catalog", error);
}

Catalog_Resources::Catalog_Resources(std::shared_ptr<Catalog_Back_End> catalog, File_Sender sender)
    : catalog_(std::move(catalog)), sender_(std::move(sender))
{
}

void Catalog_Resources::add_to(REST_Router& router)
{
  REST_Router::Route_Options asks;
  asks.changes = false;
  router.add(
      "POST", "/k2/r/catalogs/{catalog}/{view}", REST_Access::agent_or_viewer,
      [this](REST_Request& request) { return view(request); }, asks);
  router.add("POST", "/k2/r/catalogs", REST_Access::agent,
             [this](REST_Request& request) { return commit(request); });
  router.add("POST", "/k2/r/catalogs/sets/{uuid}/state", REST_Access::operator_,
             [this](REST_Request& request) { return set_state(request); });
  router.add("DELETE", "/k2/r/catalogs/sets/{uuid}", REST_Access::admin,
             [this](REST_Request& request) { return remove(request); });
  router.add("GET", "/k2/r/catalogs/sets/{uuid}/dependents", REST_Access::agent_or_viewer,
             [this](REST_Request& request) { return dependents(request); });
}

REST_Reply Catalog_Resources::view(REST_Request& request)
{
  std::map<std::string, Value> query;
  if (!request.json.is_null())
    for (const json_spirit::Pair& pair : request.json.get_obj())
      query[pair.name_] = pair.value_;
  Value result;
  std::string error;
  check_catalog(catalog_->get_view(request.vars["catalog"], request.vars["view"], query, result, error), error);
  REST_Reply reply;
  reply.raw = write_json(result);
  reply.content_type = "application/json";
  if (reply.raw.size() > MOST_ANSWER_BYTES)
    throw REST_Error(413, "too_large",
                     "the answer would have " + std::to_string(reply.raw.size()) +
                         " bytes; ask for fewer rows at once with \"limit\" and \"offset\"");
  return reply;
}

Array Catalog_Resources::rows(const std::string& catalog, const std::map<std::string, Value>& query)
{
  Value result;
  std::string error;
  check_catalog(catalog_->get_view(catalog, "catalogs", query, result, error), error);
  return required<Array>(result.get_obj(), "rows");
}

bool Catalog_Resources::has_same(const Backup_Record& record)
{
  bool found = false;
  std::string error;
  check_catalog(find_same_record(*catalog_, record, found, error), error);
  return found;
}

/// Why a host may not add the record; "" when it may. A file whose sender is no longer known, or that does
/// not lie on this server, is taken as the record says.
std::string Catalog_Resources::foreign_problem(const Backup_Record& record, const std::string& host_uuid) const
{
  const std::string uuid = text_field(record, "uuid");
  const std::string named = text_field(record, "host_uuid");
  if (named != host_uuid)
    return "backup set " + uuid + " names the host " + named +
           ": a host may only record what it backed up itself; if this host was enrolled anew, restart its agent";
  if (record.storages.empty())
    return std::string();
  const std::string folder = text_field(record, record.catalog == "oscar" ? "minor_resource_id" : "uri");
  std::string name = text_field(record, "backup_file");
  if (name.empty() && !record.pieces.empty())
    name = record.pieces.front().name;
  const std::string sender = sender_(record.storages.front().pool_uuid, folder, name);
  if (sender.empty() || sender == host_uuid)
    return std::string();
  return "backup set " + uuid + " names the file " + folder + "/" + name + ", which the host " + sender + " stored";
}

REST_Reply Catalog_Resources::commit(REST_Request& request)
{
  const Object& body = request.json.get_obj();
  Backup_Record record = backup_record_from(required<Value>(body, "record"));
  if (text_field(record, "host_uuid").empty())
    record.fields["host_uuid"] = request.caller.uuid;
  const std::string problem = foreign_problem(record, request.caller.uuid);
  if (!problem.empty()) {
    REST_Reply refusal = rest_error(403, "not_yours", problem);
    refusal.audit = problem;
    return refusal;
  }
  bool must_be_new = required<bool>(body, "must_be_new");
  bool repeated = false;
  optional(body, "repeated", repeated);
  const std::lock_guard<std::mutex> in_line(commits_);
  if (repeated && has_same(record)) {
    ACE_DEBUG((LM_DEBUG, "(%P|%t) Catalog_Resources::commit: %C was repeated by %C\n",
               text_field(record, "uuid").c_str(), request.caller.name.c_str()));
    must_be_new = false;
  }
  std::string warning, error;
  check_catalog(catalog_->commit(record, must_be_new, warning, error), error);
  REST_Reply reply;
  reply.json = Object{{"warning", warning}};
  reply.audit = "backup set " + text_field(record, "uuid") + " of " + record.catalog;
  return reply;
}

/// One at most.
Array Catalog_Resources::set_rows(const std::string& uuid)
{
  for (const char* catalog : CATALOGS) {
    Array found = rows(catalog, {{"uuid", uuid}, {"limit", 1}});
    if (!found.empty())
      return found;
  }
  return Array();
}

REST_Reply Catalog_Resources::set_state(REST_Request& request)
{
  const Object& body = request.json.get_obj();
  const std::string state = required<std::string>(body, "state");
  if (state != "available" && state != "unavailable")
    throw REST_Error(400, "bad_request", "\"state\" must be \"available\" or \"unavailable\"");
  std::string reason;
  optional(body, "reason", reason);
  const std::string& uuid = request.vars["uuid"];
  std::string error;
  const Set_State wanted = state == "available" ? Set_State::available : Set_State::unavailable;
  const Catalog_Status status = catalog_->set_state(uuid, wanted, reason, error);
  if (status == Catalog_Status::failed) {
    const Array found = set_rows(uuid);
    if (found.empty())
      throw REST_Error(404, "not_found", error);
    if (!json_spirit::find_value(found.front().get_obj(), "deletion_begun").is_null())
      throw REST_Error(409, "deleting", error);
  }
  check_catalog(status, error);
  REST_Reply reply;
  reply.json = Object();
  reply.audit = state;
  return reply;
}

REST_Reply Catalog_Resources::remove(REST_Request& request)
{
  const std::string& uuid = request.vars["uuid"];
  std::string error;
  const Catalog_Status status = catalog_->remove(uuid, error);
  if (status == Catalog_Status::failed && !has_set(uuid))
    throw REST_Error(404, "not_found", error);
  check_catalog(status, error);
  REST_Reply reply;
  reply.json = Object();
  return reply;
}

REST_Reply Catalog_Resources::dependents(REST_Request& request)
{
  const std::string& uuid = request.vars["uuid"];
  std::vector<std::string> uuids;
  std::string error;
  const Catalog_Status status = catalog_->dependents(uuid, uuids, error);
  if (status == Catalog_Status::failed && !has_set(uuid))
    throw REST_Error(404, "not_found", error);
  check_catalog(status, error);
  Array list;
  list += uuids;
  REST_Reply reply;
  reply.json = Object{{"uuids", std::move(list)}};
  return reply;
}
} // namespace kestrel

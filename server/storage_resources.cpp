#include "server/storage_resources.h"

#include "base/checksum.h"
#include "server/catalog_resources.h"
#include "server/pool_resources.h"
#include "storage/directory_back_end.h"
#include "storage/directory_files.h"
#include "json/json_util.h"

#include <cerrno>

namespace kestrel
{
namespace
{
using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;

const int64_t MOST_READ_BYTES = 8 << 20;

REST_Reply answer(Object object)
{
  REST_Reply reply;
  reply.json = std::move(object);
  return reply;
}

REST_Reply answer_offset(uint64_t offset)
{
  return answer({{"offset", offset}});
}

std::string version_of(const Stored_File_Reader& file)
{
  return std::to_string(file.size()) + "-" + xxh3_128_hex(file.side_file().data(), file.side_file().size());
}

/// A number that the query must have.
uint64_t needed_number(const REST_Request& request, const char* name, int64_t least, int64_t most)
{
  if (request.query.count(name) == 0)
    throw REST_Error(400, "bad_request", std::string("the query must have \"") + name + "\"");
  return static_cast<uint64_t>(request.query_number(name, least, least, most));
}

/// Where the file of a request lies.
struct File_Place {
  Pool_Info pool;
  std::string folder;
  std::string name;
  Directory_Back_End back_end;
  std::string path() const { return pool.storage_path + "/" + folder + "/" + name; }
};

void find_place(const Pool_Registry& pools, REST_Request& request, File_Place& place)
{
  place.pool = find_pool_or_refuse(pools, request.vars["pool"]);
  place.folder = request.vars["folder"];
  place.name = request.vars["name"];
  std::string error;
  if (!is_stored_file_name(place.name, error))
    throw REST_Error(400, "bad_request", error);
  connect_folder(place.back_end, place.pool, place.folder);
}

std::unique_ptr<Stored_File_Reader> open_place(File_Place& place)
{
  std::string error;
  std::unique_ptr<Stored_File_Reader> file = place.back_end.open(place.name, error);
  if (file)
    return file;
  const bool missing = errno != EHOSTUNREACH && !exists(place.path());
  throw REST_Error(missing ? 404 : 507, missing ? "not_found" : "storage", error);
}
} // namespace

Storage_Resources::Storage_Resources(const Pool_Registry& pools, std::shared_ptr<Catalog_Back_End> catalog,
                                     const std::string& folder, const Storage_Uploads::Limits& limits)
    : pools_(pools), catalog_(std::move(catalog)), uploads_(folder, pools, limits)
{
  uploads_.load();
  uploads_.start();
}

void Storage_Resources::add_to(REST_Router& router)
{
  const REST_Access agent = REST_Access::agent;
  REST_Router::Route_Options pieces;
  pieces.raw_body = true;
  pieces.quiet_audit = true;
  router.add("GET", "/k2/r/storage/{pool}/{folder}", agent,
             [this](REST_Request& request) { return check(request); });
  router.add("GET", "/k2/r/storage/{pool}/{folder}/{name}", agent,
             [this](REST_Request& request) { return show(request); });
  router.add("GET", "/k2/r/storage/{pool}/{folder}/{name}/bytes", agent,
             [this](REST_Request& request) { return bytes(request); });
  router.add("DELETE", "/k2/r/storage/{pool}/{folder}/{name}", agent,
             [this](REST_Request& request) { return remove(request); });
  router.add("POST", "/k2/r/uploads", agent, [this](REST_Request& request) { return begin(request); });
  router.add("GET", "/k2/r/uploads/{upload}", agent, [this](REST_Request& request) {
    return answer_offset(uploads_.offset(request.vars["upload"], request.caller.uuid));
  });
  router.add(
      "PUT", "/k2/r/uploads/{upload}/bytes", agent,
      [this](REST_Request& request) {
        const uint64_t at = needed_number(request, "offset", 0, INT64_MAX);
        return answer_offset(uploads_.write(request.vars["upload"], request.caller.uuid, at, request.body));
      },
      pieces);
  router.add("POST", "/k2/r/uploads/{upload}/commit", agent, [this](REST_Request& request) {
    const Object& body = request.json.get_obj();
    uploads_.commit(request.vars["upload"], request.caller.uuid, required<uint64_t>(body, "size"),
                    required<std::string>(body, "side_file"));
    return answer(Object());
  });
  router.add("DELETE", "/k2/r/uploads/{upload}", agent, [this](REST_Request& request) {
    const bool keep = request.query_number("keep", 0, 0, 1) != 0;
    uploads_.give_up(request.vars["upload"], request.caller.uuid, keep);
    return answer(Object());
  });
}

REST_Reply Storage_Resources::check(REST_Request& request)
{
  Directory_Back_End back_end;
  connect_folder(back_end, find_pool_or_refuse(pools_, request.vars["pool"]), request.vars["folder"]);
  return answer(Object());
}

REST_Reply Storage_Resources::show(REST_Request& request)
{
  File_Place place;
  find_place(pools_, request, place);
  const std::unique_ptr<Stored_File_Reader> file = open_place(place);
  return answer({{"size", file->size()}, {"side_file", file->side_file()}, {"version", version_of(*file)}});
}

REST_Reply Storage_Resources::bytes(REST_Request& request)
{
  const uint64_t offset = needed_number(request, "offset", 0, INT64_MAX);
  const uint64_t length = needed_number(request, "length", 1, MOST_READ_BYTES);
  File_Place place;
  find_place(pools_, request, place);
  const std::unique_ptr<Stored_File_Reader> file = open_place(place);
  if (version_of(*file) != request.query_text("version"))
    throw REST_Error(409, "changed", place.name + " was replaced while it was read; read it again");
  reads_.note(place.pool.pool_id, place.folder, place.name);
  REST_Reply reply;
  reply.content_type = "application/octet-stream";
  reply.raw.resize(static_cast<size_t>(length));
  std::string error;
  const int count = file->read_at(offset, &reply.raw[0], static_cast<unsigned>(length), error);
  if (count < 0)
    throw REST_Error(507, "storage", error);
  reply.raw.resize(static_cast<size_t>(count));
  return reply;
}

bool Storage_Resources::is_recorded(const Pool_Info& pool, const std::string& folder, const std::string& name)
{
  const auto names_file = [&](const char* catalog, const char* folder_field) {
    Value result;
    std::string error;
    check_catalog(
        catalog_->get_view(
            catalog, "catalogs",
            {{"pool_uuid", pool.pool_id}, {folder_field, folder}, {"backup_file", name}, {"limit", 1}},
            result, error),
        error);
    return !required<Array>(result.get_obj(), "rows").empty();
  };
  return names_file("oscar_brcmd", "uri") || names_file("oscar", "minor_resource_id");
}

REST_Reply Storage_Resources::remove(REST_Request& request)
{
  File_Place place;
  find_place(pools_, request, place);
  const std::string& pool_id = place.pool.pool_id;
  REST_Reply reply = answer(Object());
  reply.audit = place.folder + "/" + place.name;
  const std::string sender = uploads_.sender(pool_id, place.folder, place.name);
  const bool there = exists(place.path()) || exists(partial_file_path(place.path()));
  if (!there && sender.empty())
    return reply;
  if (sender != request.caller.uuid)
    throw REST_Error(403, "not_yours",
                     "the file " + place.name +
                         " was not sent by this host within the last day; only the "
                         "server's administrator may remove it");
  if (exists(place.path()) && is_recorded(place.pool, place.folder, place.name))
    throw REST_Error(409, "recorded", "the file " + place.name + " belongs to a backup set of the catalog");
  uploads_.forget(pool_id, place.folder, place.name);
  std::string error;
  if (!place.back_end.remove(place.name, error))
    throw REST_Error(507, "storage", error);
  return reply;
}

/// An agent may replace what it stored itself and nobody needs, and what was left over by somebody long ago.
void Storage_Resources::check_replace(const Upload_Record& wanted, const Pool_Info& pool)
{
  const std::string path = pool.storage_path + "/" + wanted.folder + "/" + wanted.name;
  if (!wanted.overwrite || !exists(path))
    return;
  const std::string sender = uploads_.sender(pool.pool_id, wanted.folder, wanted.name);
  if (!sender.empty() && sender != wanted.host_uuid)
    throw REST_Error(409, "not_yours", "the file " + wanted.name + " was stored by another host");
  if (is_recorded(pool, wanted.folder, wanted.name))
    throw REST_Error(409, "recorded",
                     "the file " + wanted.name + " belongs to a backup set of the catalog and stays");
}

REST_Reply Storage_Resources::begin(REST_Request& request)
{
  const Object& body = request.json.get_obj();
  Upload_Record wanted;
  wanted.id = required<std::string>(body, "upload");
  wanted.host_uuid = request.caller.uuid;
  wanted.folder = required<std::string>(body, "folder");
  wanted.name = required<std::string>(body, "name");
  wanted.overwrite = required<bool>(body, "overwrite");
  optional(body, "keep_seconds", wanted.keep_seconds);
  const Pool_Info pool = find_pool_or_refuse(pools_, required<std::string>(body, "pool"));
  wanted.pool_id = pool.pool_id;
  std::string error;
  if (!is_stored_file_name(wanted.name, error))
    throw REST_Error(400, "bad_request", error);
  Directory_Back_End back_end;
  connect_folder(back_end, pool, wanted.folder);
  check_replace(wanted, pool);
  REST_Reply reply = answer_offset(uploads_.begin(wanted));
  reply.audit = pool.name + ": " + wanted.folder + "/" + wanted.name;
  return reply;
}
} // namespace kestrel

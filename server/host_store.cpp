#include "server/host_store.h"

#include "server/server_database.h"
#include "json/json_util.h"

namespace kestrel
{
namespace
{
json_spirit::Array read_array(const std::string& text)
{
  json_spirit::Value value;
  std::string error;
  if (!text.empty() && read_json(text, value, error) && value.type() == json_spirit::array_type)
    return value.get_array();
  return json_spirit::Array();
}
} // namespace

std::vector<Host_Record> Host_Store::load()
{
  std::vector<Host_Record> hosts;
  Server_Database::Lease session = database_.lease();
  const soci::rowset<soci::row> rows =
      (session->prepare
       << "SELECT h.uuid, h.name, CAST(h.revoked_at > 0 AS TEXT), COALESCE(i.version, ''), COALESCE(i.address, ''),"
          " CAST(COALESCE(i.last_seen, 0) AS TEXT), COALESCE(i.instances, '')"
          " FROM host h LEFT JOIN host_info i ON i.host_uuid = h.uuid ORDER BY h.name");
  for (const soci::row& row : rows) {
    Host_Record host;
    host.uuid = row.get<std::string>(0);
    host.name = row.get<std::string>(1);
    host.revoked = row.get<std::string>(2) != "0";
    host.version = row.get<std::string>(3);
    host.address = row.get<std::string>(4);
    host.last_seen = std::stoll(row.get<std::string>(5));
    host.instances = read_array(row.get<std::string>(6));
    hosts.push_back(std::move(host));
  }
  return hosts;
}

std::map<std::string, Host_Record> Host_Store::identities()
{
  std::map<std::string, Host_Record> hosts;
  Server_Database::Lease session = database_.lease();
  const soci::rowset<soci::row> rows =
      (session->prepare << "SELECT uuid, name, key_hash, CAST(revoked_at > 0 AS TEXT) FROM host");
  for (const soci::row& row : rows) {
    Host_Record host;
    host.uuid = row.get<std::string>(0);
    host.name = row.get<std::string>(1);
    host.key_hash = row.get<std::string>(2);
    host.revoked = row.get<std::string>(3) != "0";
    hosts[host.uuid] = std::move(host);
  }
  return hosts;
}

bool Host_Store::is_admitted(const std::string& uuid, const std::string& key_hash)
{
  int admitted = 0;
  Server_Database::Lease session = database_.lease();
  *session << "SELECT count(*) FROM host WHERE uuid = :u AND key_hash = :h AND revoked_at = 0",
      soci::use(uuid, "u"), soci::use(key_hash, "h"), soci::into(admitted);
  return admitted != 0;
}

void Host_Store::save(const Host_Record& host)
{
  const std::string instances = write_json(host.instances);
  const long long last_seen = host.last_seen;
  Server_Database::Lease session = database_.lease();
  *session << "INSERT OR REPLACE INTO host_info (host_uuid, version, address, last_seen, instances)"
              " VALUES (:u, :v, :a, :s, :i)",
      soci::use(host.uuid, "u"), soci::use(host.version, "v"), soci::use(host.address, "a"),
      soci::use(last_seen, "s"), soci::use(instances, "i");
}

void Host_Store::seen(const std::string& uuid, int64_t when)
{
  const long long last_seen = when;
  Server_Database::Lease session = database_.lease();
  *session << "UPDATE host_info SET last_seen = :s WHERE host_uuid = :u", soci::use(last_seen, "s"),
      soci::use(uuid, "u");
}
} // namespace kestrel

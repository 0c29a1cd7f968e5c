#include "agent/host_identity.h"

#include "agent/server_key.h"
#include "base/durable_file.h"
#include "base/file_lock.h"
#include "base/path_conf.h"
#include "base/uuid.h"
#include "json/json_util.h"

#include <cerrno>
#include <cstring>

namespace kestrel
{
namespace
{
bool parse_identity(const std::string& path, const std::string& text, Host_Identity& identity,
                    std::string& error)
{
  json_spirit::Value value;
  Host_Identity found;
  if (read_json(text, value, error)) {
    try {
      found.host_id = required<std::string>(value.get_obj(), "host_id");
      found.user_id = required<std::string>(value.get_obj(), "user_id");
    } catch (const std::exception& exception) {
      error = exception.what();
    }
  }
  if (!is_uuid(found.host_id) || !is_uuid(found.user_id)) {
    error = path + " is damaged" + (error.empty() ? "" : " (" + error + ")") +
            "; restore it from a copy of this host";
    return false;
  }
  identity = found;
  return true;
}
} // namespace

namespace
{
bool load_own_identity(Host_Identity& identity, std::string& error)
{
  const std::string path = state_path("host.json");
  File_Lock lock;
  if (!lock.lock(path + ".lock")) {
    error = "cannot lock " + path + ".lock: " + std::strerror(errno);
    return false;
  }
  std::string text;
  std::string problem;
  if (read_whole_file(path, text, problem, 64 * 1024))
    return parse_identity(path, text, identity, error);
  if (errno != ENOENT) {
    error = problem;
    return false;
  }
  const Host_Identity fresh{make_uuid(), make_uuid()};
  json_spirit::Object object;
  set_value(object, "host_id", fresh.host_id);
  set_value(object, "user_id", fresh.user_id);
  if (!write_file_durably(path, write_json_pretty(object), 0640, error))
    return false;
  identity = fresh;
  return true;
}
} // namespace

bool load_host_identity(Host_Identity& identity, std::string& error)
{
  Server_Key key;
  Host_Identity found;
  if (!load_server_key(key, error) || !load_own_identity(found, error))
    return false;
  if (key.enrolled())
    found.host_id = key.host_uuid;
  identity = found;
  return true;
}
} // namespace kestrel

#include "agent/server_key.h"

#include "base/durable_file.h"
#include "base/hex.h"
#include "base/path_conf.h"
#include "base/uuid.h"
#include "remote/rest_client.h"
#include "json/json_util.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <sys/stat.h>

namespace kestrel
{
namespace
{
const int known_format = 1;
const size_t access_key_digits = 64;
const size_t max_file_bytes = 1024 * 1024;

bool all_hex(const std::string& text)
{
  return std::all_of(text.begin(), text.end(), [](char c) { return hex_digit(c) >= 0; });
}

/// Throws std::runtime_error with what is wrong.
Server_Key key_of(const json_spirit::Value& document)
{
  if (document.type() != json_spirit::obj_type)
    throw std::runtime_error("it is not a JSON object");
  const json_spirit::Object& object = document.get_obj();
  const int format = required<int>(object, "format");
  if (format != known_format)
    throw std::runtime_error("its format is " + std::to_string(format) + ", this program knows " +
                             std::to_string(known_format));
  Server_Key key;
  std::string host, error;
  unsigned short port = 0;
  key.url = required<std::string>(object, "server");
  if (!parse_server_url(key.url, host, port, error))
    throw std::runtime_error("in its 'server', " + error);
  key.host_uuid = required<std::string>(object, "host_uuid");
  if (!is_uuid(key.host_uuid))
    throw std::runtime_error("its 'host_uuid' is no uuid");
  key.name = required<std::string>(object, "name");
  if (key.name.empty())
    throw std::runtime_error("its 'name' is empty");
  key.access_key = required<std::string>(object, "access_key");
  if (key.access_key.size() != access_key_digits || !all_hex(key.access_key))
    throw std::runtime_error("its 'access_key' is not " + std::to_string(access_key_digits) +
                             " hexadecimal digits");
  key.ca_pem = required<std::string>(object, "ca_pem");
  if (key.ca_pem.find("-----BEGIN CERTIFICATE-----") == std::string::npos)
    throw std::runtime_error("its 'ca_pem' holds no certificate");
  return key;
}

bool same(const Server_Key& one, const Server_Key& other)
{
  return one.url == other.url && one.host_uuid == other.host_uuid && one.name == other.name &&
         one.access_key == other.access_key && one.ca_pem == other.ca_pem;
}

} // namespace

bool keep_server_key(const Server_Key& key, std::string& error)
{
  json_spirit::Object object;
  set_value(object, "format", known_format);
  set_value(object, "server", key.url);
  set_value(object, "host_uuid", key.host_uuid);
  set_value(object, "name", key.name);
  set_value(object, "access_key", key.access_key);
  set_value(object, "ca_pem", key.ca_pem);
  return write_file_durably(server_key_path(), write_json_pretty(object), 0600, error);
}

bool parse_server_key(const std::string& text, const std::string& path, Server_Key& key, std::string& error)
{
  json_spirit::Value document;
  std::string problem;
  try {
    if (read_json(text, document, problem)) {
      key = key_of(document);
      return true;
    }
  } catch (const std::exception& exception) {
    problem = exception.what();
  }
  error = path + " is no enrollment of a host: " + problem;
  return false;
}

std::string server_key_path()
{
  return state_path("server_key.json");
}

bool load_server_key(Server_Key& key, std::string& error)
{
  const std::string path = server_key_path();
  std::string text, problem;
  if (!read_whole_file(path, text, problem, max_file_bytes)) {
    if (errno == ENOENT) {
      key = Server_Key();
      return true;
    }
    error = problem;
    return false;
  }
  struct stat status;
  if (::stat(path.c_str(), &status) != 0) {
    error = "cannot look at " + path + ": " + std::strerror(errno);
    return false;
  }
  if ((status.st_mode & 077) != 0) {
    error = "the access key in " + path +
            " may be read by others: enroll this host again, since the key is not " +
            "secret any more, or set the file's mode to 0600 if it never left this host";
    return false;
  }
  if (parse_server_key(text, path, key, error))
    return true;
  error += "; enroll this host again";
  return false;
}

bool read_enrollment(const std::string& path, Server_Key& key, bool& fresh, std::string& error)
{
  // A kept key that cannot be used is what a new enrollment is for.
  Server_Key kept;
  std::string unusable;
  const bool usable = load_server_key(kept, unusable);
  std::string text, problem;
  if (!read_whole_file(path, text, problem, max_file_bytes)) {
    if (errno == ENOENT && kept.enrolled()) {
      key = kept;
      fresh = false;
      return true;
    }
    error = (usable ? problem : unusable) +
            "; make an enrollment file with 'kestrel server enroll' on the server and copy it here";
    return false;
  }
  Server_Key read;
  if (!parse_server_key(text, path, read, error))
    return false;
  if (kept.enrolled() && kept.host_uuid != read.host_uuid) {
    error = path + " enrolls this host as " + read.name + " (" + read.host_uuid + "), but it is " +
            kept.name + " (" + kept.host_uuid + ") at " + kept.url + ". To make it another host, remove " +
            server_key_path() + " first";
    return false;
  }
  fresh = !usable || !same(kept, read);
  key = read;
  return true;
}

bool import_enrollment(const std::string& path, Server_Key& key, std::string& error)
{
  Server_Key read;
  bool fresh = false;
  if (!read_enrollment(path, read, fresh, error) || (fresh && !keep_server_key(read, error)))
    return false;
  key = read;
  return true;
}
} // namespace kestrel

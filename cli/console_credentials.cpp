#include "cli/console_credentials.h"

#include "base/durable_file.h"
#include "base/files.h"
#include "remote/rest_client.h"
#include "json/json_util.h"

#include <cerrno>
#include <cstring>
#include <exception>
#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>

namespace kestrel
{
namespace
{
const int FORMAT = 1;
const size_t MOST_FILE_BYTES = 1u << 20;

bool console_directory(std::string& directory, std::string& error)
{
  directory = get_env_r("KESTREL_CONSOLE_DIR");
  if (!directory.empty())
    return true;
  const std::string home = get_env_r("HOME");
  if (home.empty()) {
    error = "there is no place for the sign-in: set HOME or KESTREL_CONSOLE_DIR";
    return false;
  }
  directory = home + "/.config/kestrel";
  return true;
}

json_spirit::Object json_of(const Console_Credentials& credentials)
{
  json_spirit::Object object;
  set_value(object, "format", FORMAT);
  set_value(object, "server", credentials.url);
  set_value(object, "user", credentials.user);
  set_value(object, "role", credentials.role);
  set_value(object, "token", credentials.token);
  set_value(object, "ca_pem", credentials.ca_pem);
  set_value(object, "expires", credentials.expires);
  return object;
}

/// Throws for anything that is not what json_of() makes.
Console_Credentials read_credentials(const std::string& text)
{
  json_spirit::Value value;
  std::string error;
  if (!read_json(text, value, error))
    throw std::runtime_error(error);
  const json_spirit::Object& object = value.get_obj();
  if (required<int>(object, "format") != FORMAT)
    throw std::runtime_error("it is of another format");
  Console_Credentials credentials;
  credentials.url = required<std::string>(object, "server");
  credentials.token = required<std::string>(object, "token");
  optional(object, "user", credentials.user);
  optional(object, "role", credentials.role);
  optional(object, "ca_pem", credentials.ca_pem);
  optional(object, "expires", credentials.expires);
  return credentials;
}
} // namespace

bool normal_server_url(const std::string& text, std::string& url, std::string& error)
{
  std::string whole = text.find("://") == std::string::npos ? "https://" + text : text;
  if (!whole.empty() && whole.back() == '/')
    whole.pop_back();
  std::string host;
  unsigned short port = 0;
  if (!parse_server_url(whole, host, port, error))
    return false;
  const bool literal = host.find(':') != std::string::npos;
  url = "https://" + (literal ? "[" + host + "]" : host) + ":" + std::to_string(port);
  return true;
}

bool credentials_path(const std::string& url, std::string& path, std::string& error)
{
  std::string host;
  unsigned short port = 0;
  std::string directory;
  if (!parse_server_url(url, host, port, error) || !console_directory(directory, error))
    return false;
  path = directory + "/" + url_escape(host) + "_" + std::to_string(port) + ".json";
  return true;
}

bool load_credentials(const std::string& url, Console_Credentials& credentials, bool& found,
                      std::string& error)
{
  std::string path;
  if (!credentials_path(url, path, error))
    return false;
  std::string text;
  if (!read_whole_file(path, text, error, MOST_FILE_BYTES)) {
    if (errno != ENOENT)
      return false;
    found = false;
    return true;
  }
  try {
    credentials = read_credentials(text);
    found = true;
    return true;
  } catch (const std::exception& problem) {
    error = "the sign-in kept in " + path + " cannot be used: " + problem.what() + "; sign in again";
    return false;
  }
}

bool save_credentials(const Console_Credentials& credentials, std::string& path, std::string& error)
{
  if (!credentials_path(credentials.url, path, error))
    return false;
  const std::string directory = path.substr(0, path.rfind('/'));
  if (::make_dirs(directory.c_str(), 0700) != 0) {
    error = "cannot make the directory " + directory + ": " + std::strerror(errno);
    return false;
  }
  return write_file_durably(path, write_json_pretty(json_of(credentials)), 0600, error);
}

bool remove_credentials(const std::string& url, std::string& error)
{
  std::string path;
  if (!credentials_path(url, path, error))
    return false;
  if (::unlink(path.c_str()) == 0 || errno == ENOENT)
    return true;
  error = "cannot remove " + path + ": " + std::strerror(errno);
  return false;
}
} // namespace kestrel

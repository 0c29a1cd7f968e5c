#include "storage/pool_registry.h"

#include "base/durable_file.h"
#include "base/file_lock.h"
#include "base/file_system.h"
#include "base/path_conf.h"
#include "base/uuid.h"
#include "storage/file_error.h"
#include "storage/pool_mark.h"
#include "json/json_util.h"

#include <algorithm>
#include <cerrno>
#include <exception>
#include <filesystem>

namespace kestrel
{
namespace
{
const int FORMAT_VERSION = 1;
const mode_t FILE_MODE = 0640;
const size_t MOST_NAME_BYTES = 64;

bool is_letter_or_digit(char c)
{
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
}

bool check_name(const std::string& name, std::string& error)
{
  bool good =
      !name.empty() && name.size() <= MOST_NAME_BYTES && is_letter_or_digit(name[0]) && !is_uuid(name);
  for (const char c : name)
    good = good && (is_letter_or_digit(c) || c == '.' || c == '_' || c == '-');
  if (!good)
    error = "\"" + name +
            "\" cannot be the name of a pool: use up to 64 letters, digits, '.', '_' or '-', the first " +
            "one a letter or digit";
  return good;
}

bool absolute_directory(const std::string& path, std::string& absolute, std::string& error)
{
  bool good = !path.empty();
  for (const char c : path)
    good = good && static_cast<unsigned char>(c) >= 0x20 && c != 0x7f;
  if (!good) {
    error = "\"" + path + "\" cannot be the directory of a pool: it is empty or has control characters";
    return false;
  }
  std::error_code failure;
  std::string made = std::filesystem::absolute(path, failure).lexically_normal().string();
  if (failure) {
    error = file_error("find the current directory for", path, failure.value());
    return false;
  }
  while (made.size() > 1 && made.back() == '/')
    made.pop_back();
  if (made == "/") {
    error = "the root directory cannot be a pool; make a directory for it";
    return false;
  }
  struct stat status;
  if (file_system().stat(made.c_str(), &status) != 0) {
    error = file_error("use the pool directory", made, errno);
    return false;
  }
  if (!S_ISDIR(status.st_mode)) {
    error = file_error("use the pool directory", made, ENOTDIR);
    return false;
  }
  absolute = made;
  return true;
}

bool same_directory(const std::string& a, const std::string& b)
{
  struct stat status_a;
  struct stat status_b;
  if (a == b)
    return true;
  return file_system().stat(a.c_str(), &status_a) == 0 && file_system().stat(b.c_str(), &status_b) == 0 &&
         status_a.st_dev == status_b.st_dev && status_a.st_ino == status_b.st_ino;
}

json_spirit::Object pool_object(const Pool_Info& pool)
{
  using json_spirit::Pair;
  json_spirit::Object object;
  object.push_back(Pair("id", pool.pool_id));
  object.push_back(Pair("name", pool.name));
  object.push_back(Pair("path", pool.storage_path));
  if (!pool.back_end.empty())
    object.push_back(Pair("back_end", pool.back_end));
  if (pool.marked)
    object.push_back(Pair("marked", true));
  return object;
}

// Throws on a missing or ill-typed key.
Pool_Info pool_from(const json_spirit::Object& object)
{
  Pool_Info pool;
  pool.pool_id = required<std::string>(object, "id");
  pool.name = required<std::string>(object, "name");
  pool.storage_path = required<std::string>(object, "path");
  optional(object, "back_end", pool.back_end);
  optional(object, "marked", pool.marked);
  return pool;
}
} // namespace

Pool_Registry::Pool_Registry() : file_(state_path("pools.json")) {}

Pool_Registry::Pool_Registry(const std::string& file) : file_(file) {}

bool Pool_Registry::load(Content& content, std::string& error) const
{
  std::string text;
  std::string reason;
  if (!read_whole_file(file_, text, reason)) {
    if (errno == ENOENT) {
      content = Content();
      return true;
    }
    error = file_error("read the list of pools", file_, errno);
    return false;
  }
  const std::string unusable = "the list of pools " + file_ + " cannot be used: ";
  try {
    json_spirit::Value value;
    if (!read_json(text, json_file_limits(), value, reason)) {
      error = unusable + reason;
      return false;
    }
    const json_spirit::Object& object = value.get_obj();
    if (required<int>(object, "version") != FORMAT_VERSION) {
      error = unusable + "it was written by a newer release";
      return false;
    }
    Content read;
    for (const json_spirit::Value& each : required<json_spirit::Array>(object, "pools"))
      read.pools.push_back(pool_from(each.get_obj()));
    optional(object, "default", read.default_id);
    content = read;
    return true;
  } catch (const std::exception& failure) {
    error = unusable + failure.what();
    return false;
  }
}

bool Pool_Registry::save(const Content& content, std::string& error) const
{
  using json_spirit::Pair;
  json_spirit::Array pools;
  for (const Pool_Info& pool : content.pools)
    pools.push_back(pool_object(pool));
  json_spirit::Object object;
  object.push_back(Pair("version", FORMAT_VERSION));
  object.push_back(Pair("default", content.default_id));
  object.push_back(Pair("pools", pools));
  if (write_file_durably(file_, write_json_pretty(object), FILE_MODE, error))
    return true;
  error = file_error("store the list of pools", file_, errno);
  return false;
}

bool Pool_Registry::update(const std::function<bool(Content&, std::string&)>& change,
                           std::string& error) const
{
  File_Lock lock;
  if (!lock.lock(file_ + ".lock")) {
    error = file_error("lock the list of pools", file_, errno);
    return false;
  }
  Content content;
  return load(content, error) && change(content, error) && save(content, error);
}

std::vector<Pool_Info>::iterator Pool_Registry::position(Content& content, const std::string& id_or_name)
{
  const auto by_id = std::find_if(content.pools.begin(), content.pools.end(),
                                  [&](const Pool_Info& pool) { return pool.pool_id == id_or_name; });
  if (by_id != content.pools.end())
    return by_id;
  return std::find_if(content.pools.begin(), content.pools.end(),
                      [&](const Pool_Info& pool) { return pool.name == id_or_name; });
}

bool Pool_Registry::add(const std::string& name, const std::string& path, Pool_Info& added,
                        std::string& error)
{
  Pool_Info pool;
  if (!check_name(name, error) || !absolute_directory(path, pool.storage_path, error))
    return false;
  pool.pool_id = make_uuid();
  pool.name = name;
  const auto append = [&](Content& content, std::string& reason) {
    for (const Pool_Info& each : content.pools) {
      if (each.name == name)
        reason = "there is already a pool named " + name;
      else if (same_directory(each.storage_path, pool.storage_path))
        reason = "the directory " + pool.storage_path + " already belongs to the pool " + each.name;
      else
        continue;
      return false;
    }
    pool.marked = set_pool_mark(pool.storage_path, reason);
    if (!pool.marked && errno != EROFS)
      return false;
    reason.clear();
    content.pools.push_back(pool);
    if (content.pools.size() == 1)
      content.default_id = pool.pool_id;
    return true;
  };
  if (!update(append, error))
    return false;
  added = pool;
  return true;
}

bool Pool_Registry::update_pool(const std::string& id_or_name,
                                const std::function<void(Content&, std::vector<Pool_Info>::iterator)>& change,
                                std::string& error)
{
  return update(
      [&](Content& content, std::string& reason) {
        const auto found = position(content, id_or_name);
        const bool is_there = found != content.pools.end();
        if (is_there)
          change(content, found);
        else
          reason = "there is no pool \"" + id_or_name + "\"";
        return is_there;
      },
      error);
}

bool Pool_Registry::remove(const std::string& id_or_name, std::string& error)
{
  return update_pool(
      id_or_name,
      [](Content& content, std::vector<Pool_Info>::iterator found) {
        const bool was_default = found->pool_id == content.default_id;
        content.pools.erase(found);
        if (was_default)
          content.default_id = content.pools.size() == 1 ? content.pools[0].pool_id : "";
      },
      error);
}

bool Pool_Registry::list(std::vector<Pool_Info>& pools, std::string& error) const
{
  Content content;
  if (!load(content, error))
    return false;
  pools.swap(content.pools);
  return true;
}

bool Pool_Registry::find_in(Content& content, const std::string& id_or_name, const std::string& missing,
                            Pool_Info& info, std::string& error)
{
  const auto found = position(content, id_or_name);
  if (found == content.pools.end()) {
    error = missing;
    return false;
  }
  info = *found;
  return true;
}

bool Pool_Registry::find(const std::string& id_or_name, Pool_Info& info, std::string& error) const
{
  Content content;
  return load(content, error) &&
         find_in(content, id_or_name, "there is no pool \"" + id_or_name + "\"; look at: kestrel pool list",
                 info, error);
}

bool Pool_Registry::default_pool(Pool_Info& info, std::string& error) const
{
  // No pool's id or name is empty, so an empty default finds none.
  Content content;
  return load(content, error) &&
         find_in(content, content.default_id,
                 content.pools.empty() ? "there is no pool; add one first"
                                       : "no pool is the default; name a pool or choose a default one",
                 info, error);
}

bool Pool_Registry::set_default_pool(const std::string& id_or_name, std::string& error)
{
  return update_pool(
      id_or_name,
      [](Content& content, std::vector<Pool_Info>::iterator found) { content.default_id = found->pool_id; },
      error);
}
} // namespace kestrel

#include "instances/instance_files.h"

#include "base/durable_file.h"
#include "base/file_lock.h"
#include "base/path_conf.h"
#include "json/json_util.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <tuple>

using json_spirit::Object;
using json_spirit::Value;

namespace kestrel
{
namespace
{
const int file_version = 1;

/// The members of the array `list` of a document of a version that this program knows. Throws
/// std::runtime_error.
const json_spirit::Array& document_list(const Value& document, const char* list)
{
  if (document.type() != json_spirit::obj_type)
    throw std::runtime_error("it is not a JSON object");
  const int version = required<int>(document.get_obj(), "version");
  if (version > file_version)
    throw std::runtime_error("it was written by a newer release (version " + std::to_string(version) +
                             "); update this program");
  if (version < 1)
    throw std::runtime_error("its version is " + std::to_string(version));
  const Value& entries = json_spirit::find_value(document.get_obj(), list);
  if (entries.type() != json_spirit::array_type)
    throw std::runtime_error(std::string("it has no list '") + list + "'");
  return entries.get_array();
}

const Object& object_of(const Value& entry)
{
  if (entry.type() != json_spirit::obj_type)
    throw std::runtime_error("an entry is not an object");
  return entry.get_obj();
}

std::string name_of(const Object& entry, const char* key)
{
  const std::string name = required<std::string>(entry, key);
  if (name.empty())
    throw std::runtime_error(std::string("an entry's '") + key + "' is empty");
  return name;
}

Instance parse_instance(const Object& entry)
{
  Instance instance;
  instance.type = name_of(entry, "type");
  instance.name = name_of(entry, "name");
  instance.uuid = name_of(entry, "uuid");
  for (const json_spirit::Pair& option : required<Object>(entry, "options"))
    if (!instance.options.emplace(option.name_, option.value_).second)
      throw std::runtime_error("an option stands twice");
  return instance;
}

/// Runs a parser that throws and puts its text into `error`.
template <class Parse> bool guarded(const std::string& text, std::string& error, Parse parse)
{
  try {
    Value document;
    if (!read_json(text, json_file_limits(), document, error))
      return false;
    parse(document);
    return true;
  } catch (const std::exception& failure) {
    error = failure.what();
    return false;
  }
}

template <class Content>
bool load(const std::string& path, bool (*parse)(const std::string&, Content&, std::string&),
          Content& content, std::string& text, std::string& error)
{
  std::string cause, read;
  if (!read_whole_file(path, read, cause)) {
    if (errno == ENOENT) {
      content = Content();
      text.clear();
      return true;
    }
    error = "Cannot read " + path + ": " + cause;
    return false;
  }
  if (!parse(read, content, cause)) {
    error = "The file " + path + " is damaged: " + cause +
            ". Put back a copy of it, or move it away and register its content again";
    return false;
  }
  text.swap(read);
  return true;
}

bool same_keys(const Instance_Map& one, const Instance_Map& other)
{
  return std::equal(one.begin(), one.end(), other.begin(), other.end(),
                    [](const auto& a, const auto& b) { return a.first == b.first; });
}

/// With the user names: they enter the encryption of the passwords.
bool same_keys(const Account_Map& one, const Account_Map& other)
{
  return std::equal(one.accounts.begin(), one.accounts.end(), other.accounts.begin(), other.accounts.end(),
                    [](const auto& a, const auto& b) {
                      return !(a.first < b.first) && !(b.first < a.first) &&
                             a.second.username == b.second.username;
                    });
}

template <class Content>
bool change_file(const std::string& path, bool (*parse)(const std::string&, Content&, std::string&),
                 std::string (*write)(const Content&),
                 const std::function<bool(Content&, std::string&)>& change, std::string& error)
{
  const std::string lock_path = state_path("instances.lock");
  File_Lock lock;
  if (!lock.lock(lock_path)) {
    error = "Cannot lock " + lock_path + ": " + ::strerror(errno);
    return false;
  }
  Content content;
  std::string before;
  if (!load(path, parse, content, before, error) || !change(content, error))
    return false;
  try {
    const std::string after = write(content);
    if (after == before)
      return true;
    // JSON cannot hold every text and every depth. What would not come back as it is must not replace what
    // does.
    Content again;
    std::string cause;
    const bool same = parse(after, again, cause) && same_keys(content, again);
    if (same && write_file_durably(path, after, 0600, cause))
      return true;
    if (!same)
      cause = "a name or user name is not valid UTF-8, or an option is nested too deeply";
    error = "Cannot write " + path + ": " + cause;
  } catch (const std::exception& failure) { // options nested deeper than JSON may be
    error = "Cannot write " + path + ": " + failure.what();
  }
  return false;
}
} // namespace

std::string instances_path()
{
  return state_path("instances.json");
}

std::string accounts_path()
{
  return state_path("accounts.json");
}

std::string account_key_path()
{
  return state_path("account.key");
}

bool parse_instances(const std::string& text, Instance_Map& instances, std::string& error)
{
  return guarded(text, error, [&](const Value& document) {
    Instance_Map parsed;
    for (const Value& entry : document_list(document, "instances")) {
      const Instance instance = parse_instance(object_of(entry));
      if (!parsed.emplace(std::make_pair(instance.type, instance.name), instance).second)
        throw std::runtime_error("an instance stands twice");
    }
    instances.swap(parsed);
  });
}

bool parse_accounts(const std::string& text, Account_Map& accounts, std::string& error)
{
  return guarded(text, error, [&](const Value& document) {
    Account_Map parsed;
    const json_spirit::Array& entries = document_list(document, "accounts");
    parsed.key_id = required<std::string>(document.get_obj(), "key_id");
    for (const Value& value : entries) {
      const Object& entry = object_of(value);
      const Account_Key key = {name_of(entry, "type"), name_of(entry, "name"),
                               required<std::string>(entry, "uid")};
      const Stored_Account account = {required<std::string>(entry, "username"),
                                      required<std::string>(entry, "password")};
      if (!parsed.accounts.emplace(key, account).second)
        throw std::runtime_error("an account stands twice");
    }
    accounts = std::move(parsed);
  });
}

std::string instances_text(const Instance_Map& instances)
{
  json_spirit::Array entries;
  for (const auto& [key, instance] : instances) {
    Object options;
    for (const auto& [name, value] : instance.options)
      options.emplace_back(name, value);
    Object entry;
    entry.emplace_back("type", instance.type);
    entry.emplace_back("name", instance.name);
    entry.emplace_back("uuid", instance.uuid);
    entry.emplace_back("options", std::move(options));
    entries.push_back(std::move(entry));
  }
  Object document;
  document.emplace_back("version", file_version);
  document.emplace_back("instances", std::move(entries));
  return write_json_pretty(document);
}

std::string accounts_text(const Account_Map& accounts)
{
  json_spirit::Array entries;
  for (const auto& [key, account] : accounts.accounts) {
    Object entry;
    entry.emplace_back("type", key.type);
    entry.emplace_back("name", key.name);
    entry.emplace_back("uid", key.uid);
    entry.emplace_back("username", account.username);
    entry.emplace_back("password", account.sealed_password);
    entries.push_back(std::move(entry));
  }
  Object document;
  document.emplace_back("version", file_version);
  document.emplace_back("key_id", accounts.key_id);
  document.emplace_back("accounts", std::move(entries));
  return write_json_pretty(document);
}

bool load_instances(Instance_Map& instances, std::string& error)
{
  std::string text;
  return load<Instance_Map>(instances_path(), parse_instances, instances, text, error);
}

bool load_accounts(Account_Map& accounts, std::string& error)
{
  std::string text;
  return load<Account_Map>(accounts_path(), parse_accounts, accounts, text, error);
}

bool change_instances(const std::function<bool(Instance_Map&, std::string&)>& change, std::string& error)
{
  return change_file<Instance_Map>(instances_path(), parse_instances, instances_text, change, error);
}

bool change_accounts(const std::function<bool(Account_Map&, std::string&)>& change, std::string& error)
{
  return change_file<Account_Map>(accounts_path(), parse_accounts, accounts_text, change, error);
}
} // namespace kestrel

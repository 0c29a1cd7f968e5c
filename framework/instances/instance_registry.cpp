#include "instances/instance_registry.h"

#include "base/files.h"
#include "base/uuid.h"
#include "instances/account_cipher.h"
#include "instances/instance_files.h"
#include "instances/instance_handler.h"
#include "instances/instance_manager.h"

#include <ace/Log_Msg.h>

#include <unistd.h>

namespace kestrel
{
namespace
{
int refuse(std::string& error, const std::string& text)
{
  error = text;
  return -1;
}

/// An identity of this machine that outlives restarts. It only has to differ between hosts: what the registry
/// made from it is stored.
std::string machine_id()
{
  std::string id;
  if (read_line("/etc/machine-id", id, false) && !id.empty())
    return id;
  char name[256] = "";
  return ::gethostname(name, sizeof name - 1) == 0 ? name : "";
}

/// Calls a handler; an exception of the plug-in ends here.
template <class Call> int guarded(std::string& error, Call call)
{
  try {
    return call();
  } catch (const std::exception& failure) {
    return refuse(error, std::string("The instance handler failed: ") + failure.what());
  }
}

std::string text_or(const std::string& text, const std::string& otherwise)
{
  return text.empty() ? otherwise : text;
}
} // namespace

Instance_Registry::Instance_Registry(const std::string& host_uuid) : host_uuid_(host_uuid) {}

int Instance_Registry::merge_probe(const std::map<std::string, std::shared_ptr<Instance>>& found,
                                   std::string& error)
{
  const std::string host = host_uuid_.empty() ? machine_id() : host_uuid_;
  const bool done = change_instances(
      [&](Instance_Map& instances, std::string& problem) {
        for (const auto& [key, instance] : found) {
          if (!instance || instance->type.empty() || instance->name.empty()) {
            problem = "The probe reported an instance without type or name as '" + key + "'";
            return false;
          }
          Instance& known = instances[{instance->type, instance->name}];
          if (known.uuid.empty()) {
            known.type = instance->type;
            known.name = instance->name;
            known.uuid = name_uuid(host + "\n" + known.type + "\n" + known.name);
          }
          for (const auto& [option, value] : instance->options)
            known.options[option] = value;
        }
        return true;
      },
      error);
  return done ? 0 : -1;
}

int Instance_Registry::probe(Instance_Handler& handler, std::string& error)
{
  std::map<std::string, std::shared_ptr<Instance>> found;
  const int result = guarded(error, [&] {
    std::lock_guard<std::mutex> guard(handler.call_mutex());
    handler.error_.clear();
    if (handler.probe_instances(found) == 0)
      return 0;
    return refuse(error, text_or(handler.error(), "The instances of this host could not be listed"));
  });
  return result == 0 ? merge_probe(found, error) : -1;
}

std::string Instance_Registry::state(Instance_Handler& handler, const std::string& name)
{
  std::string state, error;
  const int result = guarded(error, [&] {
    std::lock_guard<std::mutex> guard(handler.call_mutex());
    handler.get_state(name.c_str(), state);
    return 0;
  });
  if (result != 0)
    ACE_ERROR((LM_ERROR, "(%P|%t) Instance_Registry::state: %s\n", error.c_str()));
  return result != 0 || state.empty() ? "error" : state;
}

bool Instance_Registry::port(Instance_Handler& handler, const std::string& name, unsigned short& port)
{
  std::string error;
  unsigned short found = 0;
  int known = -1;
  const int result = guarded(error, [&] {
    std::lock_guard<std::mutex> guard(handler.call_mutex());
    known = handler.get_port(name.c_str(), found);
    return 0;
  });
  if (result != 0)
    ACE_ERROR((LM_ERROR, "(%P|%t) Instance_Registry::port: %s\n", error.c_str()));
  if (result != 0 || known != 0)
    return false;
  port = found;
  return true;
}

int Instance_Registry::set_account(const std::string& type, const std::string& name, const std::string& uid,
                                   const std::string& username, const secure_string& password,
                                   std::string& error)
{
  if (type.empty() || name.empty())
    return refuse(error, "An account needs the type and the name of its instance");
  const bool done = change_accounts(
      [&](Account_Map& accounts, std::string& problem) {
        const auto missing = accounts.accounts.empty() ? Account_Cipher::Missing_Key::make
                                                       : Account_Cipher::Missing_Key::error;
        Account_Cipher cipher;
        if (!cipher.load(account_key_path(), missing, problem))
          return false;
        if (!accounts.accounts.empty() && accounts.key_id != cipher.key_id()) {
          problem = "The key file " + account_key_path() + " is not the one that " + accounts_path() +
                    " was written with: put back the right one, or remove both and enter the accounts again";
          return false;
        }
        accounts.key_id = cipher.key_id();
        Stored_Account account;
        account.username = username;
        if (!cipher.seal({type, name, uid, username}, password, account.sealed_password, problem))
          return false;
        accounts.accounts[{type, name, uid}] = account;
        return true;
      },
      error);
  return done ? 0 : -1;
}

int Instance_Registry::remove_account(const std::string& type, const std::string& name,
                                      const std::string& uid, std::string& error)
{
  const bool done = change_accounts(
      [&](Account_Map& accounts, std::string& problem) {
        if (accounts.accounts.erase({type, name, uid}) != 0)
          return true;
        problem = "There is no such account of " + type + " instance " + name;
        return false;
      },
      error);
  return done ? 0 : -1;
}

int Instance_Registry::logon(Instance_Handler& handler, const std::string& name, const std::string& uid,
                             const std::string& username, const secure_string& password, std::string& warning,
                             std::string& error)
{
  const int allowed = guarded(error, [&] {
    std::lock_guard<std::mutex> guard(handler.call_mutex());
    handler.error_.clear();
    std::map<std::string, json_spirit::Value> extra;
    if (handler.logon(name.c_str(), username.c_str(), password.c_str(), extra) == 0)
      return 0;
    return refuse(error, text_or(handler.error(), "The login to " + name + " was refused"));
  });
  if (allowed != 0 || set_account(handler.type(), name, uid, username, password, error) != 0)
    return -1;

  // The account is stored: what follows only adds to it.
  std::string problem;
  const int updated = guarded(problem, [&] {
    std::map<std::string, json_spirit::Value> options;
    {
      std::lock_guard<std::mutex> guard(handler.call_mutex());
      handler.error_.clear();
      if (handler.update_options(name.c_str(), username.c_str(), password.c_str(), options) != 0) {
        // The options that a login is needed for are those of a cluster, and most instances are in none.
        const std::string usual =
            "No cluster of " + name + " could be read; that matters only if it is a node of one";
        return refuse(problem, text_or(handler.error(), usual));
      }
    }
    const auto instance = std::make_shared<Instance>();
    instance->type = handler.type();
    instance->name = name;
    if (options.empty() || update_instance(instance, options) == 0)
      return 0;
    return refuse(problem, "The options of " + name + " could not be stored");
  });
  if (updated != 0)
    warning = problem;
  return 0;
}

int Instance_Registry::list(std::vector<Entry>& entries, std::string& error) const
{
  Instance_Map instances;
  Account_Map accounts;
  if (!load_instances(instances, error) || !load_accounts(accounts, error))
    return -1;
  std::vector<Entry> listed;
  for (const auto& [key, instance] : instances) {
    Entry entry;
    entry.instance = instance;
    // The accounts of one instance follow each other, the one that serves every uid first.
    for (auto account = accounts.accounts.lower_bound({instance.type, instance.name, ""});
         account != accounts.accounts.end() && account->first.type == instance.type &&
         account->first.name == instance.name;
         ++account)
      entry.accounts.push_back({account->first.uid, account->second.username});
    listed.push_back(std::move(entry));
  }
  entries.swap(listed);
  return 0;
}

int Instance_Registry::survey(const std::vector<Instance_Handler*>& handlers, std::vector<Survey_Entry>& entries,
                              std::string& error)
{
  std::vector<Entry> listed;
  if (list(listed, error) != 0)
    return -1;
  Instance_Map instances;
  for (const Entry& entry : listed)
    instances[{entry.instance.type, entry.instance.name}] = entry.instance;
  const Instance_Snapshot snapshot(instances);
  const Listening_Ports_Scope ports;
  std::vector<Survey_Entry> surveyed;
  for (Entry& entry : listed) {
    Survey_Entry survey;
    survey.state = "error";
    for (Instance_Handler* handler : handlers) {
      if (handler->type() != entry.instance.type)
        continue;
      survey.state = state(*handler, entry.instance.name);
      if (!port(*handler, entry.instance.name, survey.port))
        survey.port = 0;
      break;
    }
    survey.entry = std::move(entry);
    surveyed.push_back(std::move(survey));
  }
  entries.swap(surveyed);
  return 0;
}

int Instance_Registry::remove(const std::string& type, const std::string& name, std::string& error)
{
  bool known = false;
  const bool removed = change_instances(
      [&](Instance_Map& instances, std::string&) {
        known = instances.erase({type, name}) != 0;
        return true;
      },
      error);
  if (!removed)
    return -1;
  if (!known)
    return refuse(error, "The " + type + " instance " + name + " is not registered");
  const bool forgotten = change_accounts(
      [&](Account_Map& accounts, std::string&) {
        for (auto entry = accounts.accounts.begin(); entry != accounts.accounts.end();)
          entry = entry->first.type == type && entry->first.name == name ? accounts.accounts.erase(entry)
                                                                         : std::next(entry);
        return true;
      },
      error);
  return forgotten ? 0 : -1;
}
} // namespace kestrel

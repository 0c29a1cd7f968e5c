#include "instances/instance_manager.h"

#include "instances/account_cipher.h"
#include "instances/instance_files.h"

#include <ace/Log_Msg.h>

#include <atomic>

namespace
{
std::atomic<Instance_Manager*>& current()
{
  static Instance_Manager own;
  static std::atomic<Instance_Manager*> manager(&own);
  return manager;
}

thread_local const kestrel::Instance_Map* instances_of_this_thread = nullptr;

std::shared_ptr<Instance> copy_of(const kestrel::Instance_Map& instances, const std::string& type,
                                  const std::string& name)
{
  const auto found = instances.find({type, name});
  return found == instances.end() ? std::shared_ptr<Instance>() : std::make_shared<Instance>(found->second);
}

int log_failure(const char* operation, const std::string& error)
{
  ACE_ERROR((LM_ERROR, "(%P|%t) %s: %s\n", operation, error.c_str()));
  return -1;
}

/// The account of this uid, else the one that serves every uid.
const kestrel::Stored_Account* choose_account(const kestrel::Account_Map& accounts, kestrel::Account_Key& key)
{
  auto found = accounts.accounts.find(key);
  if (found == accounts.accounts.end()) {
    key.uid.clear();
    found = accounts.accounts.find(key);
  }
  return found == accounts.accounts.end() ? nullptr : &found->second;
}
} // namespace

Instance_Manager* Instance_Manager::instance()
{
  return current().load();
}

Instance_Manager::~Instance_Manager() = default;

std::shared_ptr<Instance> Instance_Manager::find(const std::string& type, const std::string& name)
{
  if (instances_of_this_thread)
    return copy_of(*instances_of_this_thread, type, name);
  kestrel::Instance_Map instances;
  std::string error;
  if (!kestrel::load_instances(instances, error)) {
    log_failure("Instance_Manager::find", error);
    return std::shared_ptr<Instance>();
  }
  return copy_of(instances, type, name);
}

int Instance_Manager::get_account(const std::string& type, const std::string& name, const std::string& uid,
                                  std::string& username, secure_string& password,
                                  std::map<std::string, json_spirit::Value>*)
{
  const char* const operation = "Instance_Manager::get_account";
  kestrel::Account_Map accounts;
  std::string error;
  if (!kestrel::load_accounts(accounts, error))
    return log_failure(operation, error);
  kestrel::Account_Key key = {type, name, uid};
  const kestrel::Stored_Account* account = choose_account(accounts, key);
  if (!account) { // the caller decides what that means
    ACE_DEBUG((LM_NOTICE, "(%P|%t) %s: there is no account of %s instance %s\n", operation, type.c_str(),
               name.c_str()));
    return -1;
  }
  kestrel::Account_Cipher cipher;
  if (!cipher.load(kestrel::account_key_path(), kestrel::Account_Cipher::Missing_Key::error, error))
    return log_failure(operation, error);
  if (cipher.key_id() != accounts.key_id)
    return log_failure(operation,
                       "The key file " + kestrel::account_key_path() + " is not the one that " +
                           kestrel::accounts_path() +
                           " was written with: put back the right one, or remove both and enter the "
                           "accounts again");
  secure_string plain;
  kestrel::Wipe_Guard<secure_string> wipe_plain(plain);
  if (!cipher.open({key.type, key.name, key.uid, account->username}, account->sealed_password, plain, error))
    return log_failure(operation, "Cannot read the account of " + type + " instance " + name + " in " +
                                      kestrel::accounts_path() + ": " + error + ". Enter the account again");
  username = account->username;
  password.assign(plain);
  return 0;
}

int update_instance(std::shared_ptr<const Instance> instance,
                    const std::map<std::string, json_spirit::Value>& attrs)
{
  if (!instance)
    return log_failure("update_instance", "No instance was given");
  std::string error;
  const bool done = kestrel::change_instances(
      [&](kestrel::Instance_Map& instances, std::string& problem) {
        const auto found = instances.find({instance->type, instance->name});
        if (found == instances.end()) {
          problem = "The " + instance->type + " instance " + instance->name + " is not registered";
          return false;
        }
        for (const auto& [key, value] : attrs)
          found->second.options[key] = value;
        return true;
      },
      error);
  return done ? 0 : log_failure("update_instance", error);
}

namespace kestrel
{
Instance_Snapshot::Instance_Snapshot(const Instance_Map& instances)
{
  instances_of_this_thread = &instances;
}

Instance_Snapshot::~Instance_Snapshot()
{
  instances_of_this_thread = nullptr;
}

Instance_Manager* set_instance_manager_for_test(Instance_Manager* manager)
{
  return current().exchange(manager);
}
} // namespace kestrel

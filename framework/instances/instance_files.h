#pragma once

#include "instances/instance.h"

#include <functional>
#include <map>
#include <string>
#include <tuple>
#include <utility>

namespace kestrel
{
typedef std::map<std::pair<std::string, std::string>, Instance> Instance_Map; ///< by type and name

/// An account as accounts.json holds it.
struct Stored_Account {
  std::string username;
  std::string sealed_password; ///< Account_Cipher::seal()
};

struct Account_Key {
  std::string type;
  std::string name;
  std::string uid;
  bool operator<(const Account_Key& other) const
  {
    return std::tie(type, name, uid) < std::tie(other.type, other.name, other.uid);
  }
};

struct Account_Map {
  std::string key_id; ///< of the key that sealed the passwords; empty while there is none
  std::map<Account_Key, Stored_Account> accounts;
};

/// Where the files lie: the component's state directory.
std::string instances_path();
std::string accounts_path();
std::string account_key_path();

/// The two documents as text. Reading: false with a text in `error`, the result untouched; nothing is guessed
/// or skipped, since the next write would lose it.
[[nodiscard]] bool parse_instances(const std::string& text, Instance_Map& instances, std::string& error);
[[nodiscard]] bool parse_accounts(const std::string& text, Account_Map& accounts, std::string& error);
std::string instances_text(const Instance_Map& instances);
std::string accounts_text(const Account_Map& accounts);

/// Reads a file; a missing one is empty. `error` names the file and what to do.
[[nodiscard]] bool load_instances(Instance_Map& instances, std::string& error);
[[nodiscard]] bool load_accounts(Account_Map& accounts, std::string& error);

/// Reads, changes and writes a file while holding the lock of both. The change returns false with its own
/// `error` to stop; nothing is written then, nor when the change altered nothing.
[[nodiscard]] bool change_instances(const std::function<bool(Instance_Map&, std::string& error)>& change,
                                    std::string& error);
[[nodiscard]] bool change_accounts(const std::function<bool(Account_Map&, std::string& error)>& change,
                                   std::string& error);
} // namespace kestrel

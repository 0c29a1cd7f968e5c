#pragma once

#include "base/secure_allocator.h"
#include "instances/instance.h"

#include <map>
#include <memory>
#include <string>
#include <vector>

class Instance_Handler;

namespace kestrel
{
/// What a host does with instances: registers what probes find, stores accounts, lists both. State:
/// instances.json (options by instance), accounts.json (accounts, user name and password encrypted) and
/// account.key (the key of this host, mode 0600) in the component's state directory. Writers of all processes
/// take turns through a lock file; readers see the state before or after a change, never half of one.
/// Threads: safe from any thread. Calls on one handler are serialised.
/// Errors:  0, or -1 with one sentence in `error` that names the file and what to do (not logged); other
///          out-parameters untouched. A damaged file is never overwritten.
/// Crash:   files are replaced whole and durably; a leftover temporary file is harmless.
class Instance_Registry
{
public:
  struct Account {
    std::string uid; ///< empty: serves every job without an account of its own
    std::string username;
  };
  struct Entry {
    Instance instance;
    std::vector<Account> accounts;
  };
  /// What a console shows of an instance.
  struct Survey_Entry {
    Entry entry;
    std::string state;       ///< the handler's text; "error" when no handler knows the type
    unsigned short port = 0; ///< 0: not known
  };

  /// `host_uuid` enters the uuids of new instances; empty takes the id of this machine.
  explicit Instance_Registry(const std::string& host_uuid = std::string());

  /// Adds new instances and merges the options of known ones; what was not found again stays registered.
  [[nodiscard]] int merge_probe(const std::map<std::string, std::shared_ptr<Instance>>& found,
                                std::string& error);
  /// Asks the handler what is on this host and merges it.
  [[nodiscard]] int probe(Instance_Handler& handler, std::string& error);
  /// The handler's state text; "error" when it has none.
  std::string state(Instance_Handler& handler, const std::string& name);
  /// The port that the handler tells; false, with `port` untouched, when it knows none.
  [[nodiscard]] bool port(Instance_Handler& handler, const std::string& name, unsigned short& port);

  /// Stores an account without testing it. The instance need not be registered.
  [[nodiscard]] int set_account(const std::string& type, const std::string& name, const std::string& uid,
                                const std::string& username, const secure_string& password,
                                std::string& error);
  /// -1 when there is none.
  [[nodiscard]] int remove_account(const std::string& type, const std::string& name, const std::string& uid,
                                   std::string& error);
  /// Tests the login through the handler, then stores the account and lets the handler update the instance's
  /// options. A refused login stores nothing. Failing to update the options does not undo the account: 0 with
  /// the reason in `warning`.
  [[nodiscard]] int logon(Instance_Handler& handler, const std::string& name, const std::string& uid,
                          const std::string& username, const secure_string& password, std::string& warning,
                          std::string& error);

  /// All instances in order of type and name with the user names of their accounts. Passwords are not read.
  [[nodiscard]] int list(std::vector<Entry>& entries, std::string& error) const;
  /// list() with the state and the port of each, as one look: files and kernel tables are read once, however many
  /// instances there are.
  [[nodiscard]] int survey(const std::vector<Instance_Handler*>& handlers, std::vector<Survey_Entry>& entries,
                           std::string& error);
  /// -1 when it is not registered. Its accounts go with it.
  [[nodiscard]] int remove(const std::string& type, const std::string& name, std::string& error);

private:
  std::string host_uuid_;
};
} // namespace kestrel

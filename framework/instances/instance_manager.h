#pragma once

#include "base/secure_allocator.h"
#include "instances/instance.h"

#include <map>
#include <memory>
#include <string>
#include <utility>

/// Looks up instances and accounts for jobs. Reads instances.json and accounts.json of the component's state
/// directory on each call, so it sees what other processes of the host registered; kestrel::Instance_Registry
/// writes them.
/// Threads:   safe from any thread and beside other processes.
/// Ownership: instance() returns a process-wide object; do not delete it.
/// Errors:    one line at LM_ERROR that names the file and the cure; results untouched.
class Instance_Manager
{
public:
  /// Null only after set_instance_manager_for_test(nullptr).
  static Instance_Manager* instance();

  virtual ~Instance_Manager();

  /// The caller's own copy; empty when unknown (not logged) or when the registry cannot be read (logged).
  virtual std::shared_ptr<Instance> find(const std::string& type, const std::string& name);

  /// The account stored for (type, name, uid); when there is none, the one stored for (type, name, ""), which
  /// serves every job without one of its own. 0 or -1. User name and password may be empty if they were
  /// stored so. `extra` may be null; it gets the account's further attributes.
  [[nodiscard]] virtual int get_account(const std::string& type, const std::string& name,
                                        const std::string& uid, std::string& username,
                                        secure_string& password,
                                        std::map<std::string, json_spirit::Value>* extra);
};

namespace kestrel
{
/// While it lives, Instance_Manager::find() on the thread that made it answers from one reading of the registry, for
/// questions about many instances at one moment. Nothing else sees it; scopes do not nest.
class Instance_Snapshot
{
public:
  explicit Instance_Snapshot(const std::map<std::pair<std::string, std::string>, Instance>& instances);
  ~Instance_Snapshot();
  Instance_Snapshot(const Instance_Snapshot&) = delete;
  Instance_Snapshot& operator=(const Instance_Snapshot&) = delete;
};

/// Replaces what Instance_Manager::instance() returns and hands back the one before. Not owned.
Instance_Manager* set_instance_manager_for_test(Instance_Manager* manager);
} // namespace kestrel

#pragma once

#include "instances/instance_handler.h"
#include "oscar/instance_info.h"

#include <map>
#include <memory>
#include <string>

/// Knows the OSCAR instances of this host: finds them, tells their state and tests logins.
/// Threads: the framework serialises the calls on one handler; each may block while a tool runs.
/// Errors:  0 or -1. logon() leaves a text for the user in error(); the others only log. No exception leaves.
/// Crash:   keeps nothing on disk.
class Oscar_Instance_Handler : public Instance_Handler
{
public:
  Oscar_Instance_Handler();

  /// Option -l LOCALE: the locale under which the services are listed, empty by default. Anything else is
  /// noted at debug level. Always 0.
  int init(int argc, char** argv) override;
  /// Also reports what earlier probes found and this one did not: an instance that is stopped keeps its
  /// entry.
  int probe_instances(std::map<std::string, std::shared_ptr<Instance>>& instances) override;
  /// "online" or "offline"; "error" for an instance that is not registered.
  std::string& get_state(const char* name, std::string& state) override;
  /// Knows only what a probe of this handler has found, by its exact upper-case name. `extra` is not used.
  int logon(const char* name, const char* username, const char* password,
            std::map<std::string, json_spirit::Value>& extra) override;
  /// Adds "instance", "node_id" and "master_id" of this host's node, also to the registered instance.
  int update_options(const char* name, const char* username, const char* password,
                     std::map<std::string, json_spirit::Value>& options) override;
  /// The port of the configuration file as it is now.
  int get_port(const char* name, unsigned short& port) override;

  /// As init() set it.
  const std::string& locale() const { return locale_; }

private:
  std::map<std::string, Oscar_Instance_Info> inst_infos_; // by name; entries are never removed
  std::string locale_;
};

#pragma once

#include "instances/instance.h"

#include <map>
#include <memory>
#include <mutex>
#include <string>

namespace kestrel
{
class Instance_Registry;
}

/// Knows one kind of database: finds its instances on this host, tells their state and tests logins.
/// Implemented by plug-ins; the order of the virtual functions is part of the plug-in interface.
/// Threads: the framework serialises the calls on one handler (kestrel::Instance_Registry holds
///          call_mutex()).
/// Errors:  int results are 0 or -1; error() may then hold a text for the user.
class Instance_Handler
{
public:
  explicit Instance_Handler(const char* type);
  virtual ~Instance_Handler();
  Instance_Handler(const Instance_Handler&) = delete;
  Instance_Handler& operator=(const Instance_Handler&) = delete;

  /// The words of the configuration line, without a program name in front.
  virtual int init(int argc, char** argv);
  /// Adds what was found, by instance name; entries that stand there already are replaced.
  virtual int probe_instances(std::map<std::string, std::shared_ptr<Instance>>& instances);
  /// Writes a state text into `state` and returns `state`.
  virtual std::string& get_state(const char* name, std::string& state);
  /// Tests the login.
  virtual int logon(const char* name, const char* username, const char* password,
                    std::map<std::string, json_spirit::Value>& extra);
  /// Adds to `options` what a login lets it find out about the instance.
  virtual int update_options(const char* name, const char* username, const char* password,
                             std::map<std::string, json_spirit::Value>& options);
  /// The TCP port on which a registered instance is to be reached, for lists: 0 with `port` set, or -1 with
  /// `port` untouched when it is not known.
  virtual int get_port(const char* name, unsigned short& port);

  const std::string& type() const { return type_; }
  /// Read it while holding call_mutex().
  const std::string& error() const { return error_; }
  std::mutex& call_mutex() { return call_mutex_; }

protected:
  friend class kestrel::Instance_Registry;
  std::string error_;

private:
  std::string type_;
  std::mutex call_mutex_;
};

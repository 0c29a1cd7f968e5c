#pragma once

#include "base/secure_allocator.h"
#include "instances/instance_registry.h"
#include "json/value.h"

#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

class Instance_Handler;

namespace kestrel
{
/// The instances of a host as an agent shows them: looks for new ones at start and at intervals, looks at the
/// state of the known ones more often, and tells when anything of that changed.
/// Threads:   start() and stop() by the owner; the rest from any thread. Calls on one handler are serialised
///            by the registry. A look for instances runs tools and may take minutes; known() and a list()
///            without one do not wait for it.
/// Ownership: registry and handlers are not owned and must outlive it.
/// Errors:    false with one sentence in `error`.
class Instance_Service
{
public:
  struct Settings {
    int64_t probe_msec = 600 * 1000;
    int64_t state_msec = 30 * 1000;
  };
  Instance_Service(Instance_Registry& registry, std::vector<Instance_Handler*> handlers);
  Instance_Service(Instance_Registry& registry, std::vector<Instance_Handler*> handlers, Settings settings);
  ~Instance_Service() { stop(); }
  Instance_Service(const Instance_Service&) = delete;
  Instance_Service& operator=(const Instance_Service&) = delete;

  /// Called with the new list whenever it differs from the last one, on the thread that found out. Null ends
  /// it; no call into the former listener goes on afterwards.
  void set_listener(std::function<void(const json_spirit::Array&)> listener);

  /// Looks at the known instances before it returns, which runs no tools, and for new ones from then on.
  void start();
  /// Waits for the look under way.
  void stop();
  /// Another interval, from now on.
  void set_probe_msec(int64_t probe_msec);

  /// {"name","uuid","type","port","version","state","home","accounts"} each, by type and name; "port" is null
  /// when it is not known, "accounts" are user names. With `probe` it looks for new instances first. Without,
  /// while others look, it gives what was found out last, or why that failed.
  [[nodiscard]] bool list(bool probe, json_spirit::Array& instances, std::string& error);
  /// The list as the listener heard it last; empty when there was none yet. Waits for nothing and looks at
  /// nothing.
  json_spirit::Array known();
  /// Tests a login and keeps the account, for every job without one of its own.
  [[nodiscard]] bool logon(const std::string& name, const std::string& user, const secure_string& password,
                           std::string& warning, std::string& error);

private:
  void run();
  void look(bool for_new_ones);
  // The following are called with the handlers locked.
  bool probe(std::string& error);
  bool refresh(json_spirit::Array& instances, std::string& error);
  void publish(const json_spirit::Array& instances);

  Instance_Registry& registry_;
  const std::vector<Instance_Handler*> handlers_;

  std::mutex handlers_mutex_; ///< held as long as handlers are at work
  std::mutex listener_mutex_;
  std::function<void(const json_spirit::Array&)> listener_;

  std::mutex mutex_;
  std::condition_variable wake_;
  Settings settings_;
  bool stop_ = false;
  bool known_ = false;  ///< last_ holds a list
  std::string problem_; ///< why the last attempt to get one failed; empty: it did not
  json_spirit::Array last_;
  std::thread thread_;
};
} // namespace kestrel

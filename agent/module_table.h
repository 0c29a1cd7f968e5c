#pragma once

#include "agent/agent_config.h"
#include "jobs/job_creator.h"

#include <map>
#include <memory>
#include <string>
#include <vector>

class Instance_Handler;
class JSON_RPC_Handler;

namespace kestrel
{
class Job_Definition_Loader;

/// The modules of a host and what each of their service objects is used for, as configured.
/// Threads:   open(), close() and the destructor on one thread; the rest from any thread in between.
/// Ownership: the objects are the modules' and live until close(). Before it, every job, document and
///            thread that runs a module's code must be gone; Job::wait_all_runs() waits for the threads of
///            jobs.
/// Errors:    false with `error` naming module and object; nothing is loaded then.
class Module_Table
{
public:
  Module_Table();
  ~Module_Table();
  Module_Table(const Module_Table&) = delete;
  Module_Table& operator=(const Module_Table&) = delete;

  /// Loads every module and makes and initialises every object. Once, unless close() came between.
  [[nodiscard]] bool open(const std::vector<Module_Config>& modules, std::string& error);
  /// Gives the objects back in the opposite order and unloads the modules.
  void close();

  /// By JSON-RPC method.
  const std::map<std::string, JSON_RPC_Handler*>& rpc_handlers() const;
  const std::vector<Instance_Handler*>& instance_handlers() const;
  /// The handler for one type of instance; null when no module knows it.
  Instance_Handler* instance_handler(const std::string& type) const;
  /// Null when no module runs such jobs.
  Job_Creator* job_creator(Job_Definition_Type type, Job_Definition_Subtype subtype) const;
  /// Reads definitions with the parsers of the modules.
  const Job_Definition_Loader& loader() const;

  /// Where a module file of this installation lies; a path with a slash is taken as it is.
  static std::string installed_path(const std::string& path);

private:
  struct State;
  std::unique_ptr<State> state_;
};
} // namespace kestrel

#pragma once

#include "agent/module_loader.h"

#include <memory>
#include <string>

class Instance_Handler;
class Job_Creator;
class YAJL_Handler;
template <class T> class Object_Creator_T;

namespace kestrel
{
class Job_Definition_Loader;

/// The loaded module with the service objects that hosts need, each held until it is given back to the module.
/// Threads:   open() and the destructor on one thread; the objects have contracts of their own.
/// Ownership: the objects are the module's and live as long as this one. Jobs and documents that they made must be
///            gone before it is destroyed.
/// Errors:    false with `error`; nothing is loaded then.
class Oscar_Module
{
public:
  Oscar_Module();
  ~Oscar_Module();
  Oscar_Module(const Oscar_Module&) = delete;
  Oscar_Module& operator=(const Oscar_Module&) = delete;

  [[nodiscard]] bool open(const std::string& path, std::string& error);

  Job_Creator& job_creator() const { return *job_creator_; }
  Instance_Handler& instance_handler() const { return *instance_handler_; }
  /// Gives the loader the module's parsers for backup and restore documents.
  void add_parsers_to(Job_Definition_Loader& loader) const;

private:
  template <class T> using Held = std::unique_ptr<T, void (*)(void*)>;
  typedef Object_Creator_T<YAJL_Handler> Parser_Creator;
  template <class T> bool make(const char* name, Held<T>& held, std::string& error);

  // Declared first, so that the module is closed last.
  Module_Loader loader_;
  Held<Job_Creator> job_creator_;
  Held<Instance_Handler> instance_handler_;
  Held<Parser_Creator> backup_source_parsers_;
  Held<Parser_Creator> backup_options_parsers_;
  Held<Parser_Creator> restore_source_parsers_;
  Held<Parser_Creator> restore_options_parsers_;
};
} // namespace kestrel

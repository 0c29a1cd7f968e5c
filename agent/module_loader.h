#pragma once

#include <string>

namespace kestrel
{
/// Loads one plug-in module with dlopen and finds its factories by their plain names.
/// Not for: libraries that others link to; symbols stay local to the handle.
/// Threads:   one owner; no locking.
/// Ownership: owns the handle; the destructor closes it, so every object a factory made must be released
///            before.
/// Errors:    false or null with error() set; nothing is logged.
class Module_Loader
{
public:
  Module_Loader() = default;
  ~Module_Loader();
  Module_Loader(const Module_Loader&) = delete;
  Module_Loader& operator=(const Module_Loader&) = delete;

  [[nodiscard]] bool open(const std::string& path);
  void close();

  /// Makes the service object `name` ("Oscar_Job_Creator"): calls _make_<name>. `release` receives the
  /// function that must be given the object at the end. Null when the module lacks the factory or the factory
  /// refused; errno then says why (ENOMEM, or ENOENT: it has no such function).
  template <class T> T* make(const char* name, void (**release)(void*))
  {
    using Factory = T* (*)(void (**)(void*));
    const auto factory = reinterpret_cast<Factory>(symbol(std::string("_make_") + name));
    return factory ? factory(release) : nullptr;
  }

  const std::string& error() const { return error_; }

private:
  void* symbol(const std::string& name);

  void* handle_ = nullptr;
  std::string error_;
};
} // namespace kestrel

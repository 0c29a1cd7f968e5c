#include "agent/module_loader.h"

#include <cerrno>
#include <dlfcn.h>

namespace kestrel
{
Module_Loader::~Module_Loader()
{
  close();
}

bool Module_Loader::open(const std::string& path)
{
  close();
  handle_ = ::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (!handle_) {
    const char* reason = ::dlerror();
    error_ = "cannot load the module " + path + ": " + (reason ? reason : "unknown reason");
    return false;
  }
  return true;
}

void Module_Loader::close()
{
  if (handle_)
    ::dlclose(handle_);
  handle_ = nullptr;
}

void* Module_Loader::symbol(const std::string& name)
{
  void* found = handle_ ? ::dlsym(handle_, name.c_str()) : nullptr;
  if (!found) {
    error_ = "the module has no function " + name;
    errno = ENOENT;
  }
  return found;
}
} // namespace kestrel

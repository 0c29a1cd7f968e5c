#include "process/process_options.h"

#include <cerrno>
#include <cstdlib>
#include <string>

namespace
{
/// The value that the child would see; null when the variable is not set. Later entries win.
const char* value_in(ACE_Process_Options& opts, const std::string& name)
{
  const std::string head = name + "=";
  const char* value = nullptr;
  for (char* const* entry = opts.env_argv(); entry && *entry; ++entry)
    if (head.compare(0, std::string::npos, *entry, head.size()) == 0)
      value = *entry + head.size();
  if (!value && opts.inherit_environment())
    value = ::getenv(name.c_str());
  return value;
}
} // namespace

int append_process_options_env(ACE_Process_Options& opts, const char* name, const char* value)
{
  if (!name || !*name || !value || !*value) {
    errno = EINVAL;
    return -1;
  }
  const char* const found = value_in(opts, name);
  const std::string old = found ? found : "";
  if ((":" + old + ":").find(":" + std::string(value) + ":") != std::string::npos)
    // Options that do not hold the list themselves inherit it; nothing to set either way.
    return 0;
  const std::string list = old.empty() ? value : old + ":" + value;
  return opts.setenv(name, "%s", list.c_str()) < 0 ? -1 : 0;
}

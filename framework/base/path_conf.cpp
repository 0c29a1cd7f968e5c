#include "base/path_conf.h"

#include "base/files.h"

#include <ace/Log_Msg.h>

#include <cerrno>
#include <mutex>

namespace
{
std::mutex& name_mutex()
{
  static std::mutex* const mutex = new std::mutex;
  return *mutex;
}

std::string& stored_name()
{
  static std::string* const name = new std::string("agent");
  return *name;
}

void append_part(std::string& directory, const char* part)
{
  if (!part || !*part)
    return;
  if (directory.empty() || directory.back() != '/')
    directory += '/';
  directory += part;
}
} // namespace

Path_Conf::Path_Conf(const char* root, const char* sub)
{
  static const std::string variable = "$COMPONENT";
  std::string expanded = root ? root : "";
  const std::string name = kestrel::component_name();
  for (size_t at = expanded.find(variable); at != std::string::npos;
       at = expanded.find(variable, at + name.size()))
    expanded.replace(at, variable.size(), name);
  directory_ = product_path(expanded.c_str());
  append_part(directory_, sub);
}

std::string Path_Conf::path(const char* file) const
{
  if (make_dirs(directory_.c_str(), 0750) != 0)
    ACE_ERROR((LM_ERROR, "Failed to create directory %s, errno=%d, %m\n", directory_.c_str(), errno));
  std::string result = directory_;
  append_part(result, file);
  return result;
}

std::string product_path(const char* fixed_path)
{
  const std::string path = fixed_path ? fixed_path : "";
  std::string root = get_env_r("KESTREL_ROOT");
  while (!root.empty() && root.back() == '/')
    root.pop_back();
  return root + path;
}

namespace kestrel
{
std::string state_path(const char* file)
{
  return Path_Conf("/var/opt/tarnvik/kestrel3/$COMPONENT").path(file);
}

void set_component_name(const std::string& name)
{
  std::lock_guard<std::mutex> guard(name_mutex());
  stored_name() = name;
}

std::string component_name()
{
  std::lock_guard<std::mutex> guard(name_mutex());
  return stored_name();
}
} // namespace kestrel

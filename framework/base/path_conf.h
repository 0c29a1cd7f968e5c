#pragma once

#include <string>

/// A directory of the product. $COMPONENT in the root is the name of the running component ("agent" unless
/// kestrel::set_component_name changed it); `sub` is a directory below the root.
/// Threads: any.
class Path_Conf
{
public:
  explicit Path_Conf(const char* root, const char* sub = 0);

  /// The path of a file in the directory. Missing directories are made (mode 0750); when that fails one
  /// LM_ERROR line says why, and whoever opens the path meets the error again.
  std::string path(const char* file) const;

  /// The directory itself, without a slash at its end. Makes nothing.
  const std::string& directory() const { return directory_; }

private:
  std::string directory_;
};

/// Every absolute path of the product goes through here: with the environment variable KESTREL_ROOT set to a
/// non-empty value, the path stands below that directory; otherwise it is the path itself.
std::string product_path(const char* fixed_path);

namespace kestrel
{
/// A file of the component's durable state, such as state_path("catalog.db"). Its directory exists
/// afterwards.
std::string state_path(const char* file);

/// Names the running component. Hosts call it once before anything else; the default is "agent".
void set_component_name(const std::string& name);
std::string component_name();
} // namespace kestrel

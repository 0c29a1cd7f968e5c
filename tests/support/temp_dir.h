#pragma once

#include <string>

namespace kestrel_test
{
/// A new empty directory, removed with its content at the end of the scope.
class Temp_Dir
{
public:
  Temp_Dir();
  ~Temp_Dir();
  Temp_Dir(const Temp_Dir&) = delete;
  Temp_Dir& operator=(const Temp_Dir&) = delete;

  const std::string& path() const { return path_; }
  /// path() + "/" + name.
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }
  /// Writes a file below it, missing directories included, and returns its path. Replaces what is there.
  std::string write(const std::string& name, const std::string& content, unsigned mode = 0644) const;
  /// Makes a directory below it, with its parents, and returns its path.
  std::string make_dir(const std::string& name) const;

private:
  std::string path_;
};

/// The content of a file; a file that cannot be read fails the test and counts as "".
std::string read_file(const std::string& path);
bool exists(const std::string& path);
} // namespace kestrel_test

#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <vector>

namespace kestrel
{
/// Files that appear in a directory all together or not at all: each is written under a temporary name, and
/// publish() gives them their names when all are durable.
/// Threads: one.
/// Errors:  false with `error`: what failed, on which file, why.
/// Crash:   before publish() only files named ".kestrel-*.tmp" exist; a crash within it may leave some of the
///          files, each of them whole.
class Restored_Files
{
public:
  /// The directory must exist when begin() is called.
  explicit Restored_Files(const std::string& directory) : directory_(directory) {}
  /// Removes everything that was not published.
  ~Restored_Files();
  Restored_Files(const Restored_Files&) = delete;
  Restored_Files& operator=(const Restored_Files&) = delete;

  /// False unless the directory is one.
  [[nodiscard]] bool check_directory(std::string& error) const;
  /// `name` must have passed is_archive_member_name(); its folder is made. Fails when something that is no
  /// file has the name, or the folder is a link.
  [[nodiscard]] bool begin(const std::string& name, unsigned mode, std::string& error);
  [[nodiscard]] bool write(const char* data, unsigned n, std::string& error);
  /// The file is complete: makes it durable.
  [[nodiscard]] bool end(std::string& error);
  [[nodiscard]] bool publish(std::string& error);

private:
  struct File {
    std::string temporary;
    std::string path;
    bool published;
  };
  bool make_folder(const std::string& folder, std::string& error);
  bool close_file(std::string& error);

  const std::string directory_;
  std::vector<File> files_;
  std::set<std::string> folders_;         // to be made durable
  std::vector<std::string> made_folders_; // by us
  int fd_ = -1;
  unsigned mode_ = 0;
  bool published_ = false;
};
} // namespace kestrel

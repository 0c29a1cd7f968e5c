#pragma once

#include "storage/back_end.h"

#include <string>

namespace kestrel
{
/// A pool that is a directory on this host: each source has a folder, each stored file is a plain file NAME
/// beside its side file NAME.meta. NAME.partial is a file that is being written or was left unfinished.
///
/// Limits:  local and network file systems with rename and fsync; locks between writers of one name hold as
///          far as the file system's flock does.
/// Threads: as Storage_Back_End.
/// Errors:  as Storage_Back_End. A pool that is not there (no directory, or not its mark) fails every call, and
///          nothing is made in its place; open() says EHOSTUNREACH then.
/// Crash:   the side file gets its name before the data file, so a visible NAME always has the right
///          NAME.meta. When a file is replaced, the old one is removed first: for a moment only NAME.partial
///          exists.
class Directory_Back_End : public Storage_Back_End
{
public:
  bool connect(const std::string& location, const Client_IO_Base::Options& options,
               std::string& error) override;
  std::unique_ptr<Stored_File_Writer> create(const std::string& name, bool overwrite,
                                             std::string& error) override;
  std::unique_ptr<Stored_File_Reader> open(const std::string& name, std::string& error) override;
  bool remove(const std::string& name, std::string& error) override;

private:
  bool make_folder(std::string& error);
  /// False with `error` when the pool has a mark and that is not there. Looked at each time: a file system may
  /// be unmounted between two files.
  bool check_mark(std::string& error);

  Client_IO_Base::Options options_;
  std::string pool_path_;
  /// Below pool_path_, without a slash at either end.
  std::string folder_;
  /// Both together.
  std::string location_;
};

/// False, with `error` filled, for a name that is no plain file name or that would be taken for a leftover or
/// a side file: empty, ".", "..", with a '/' or a control character, or ending in ".meta" or ".partial".
[[nodiscard]] bool is_stored_file_name(const std::string& name, std::string& error);

/// The side file's path of a stored file's path.
std::string side_file_path(const std::string& path);
/// Where a file lies until it is complete.
std::string partial_file_path(const std::string& path);
} // namespace kestrel

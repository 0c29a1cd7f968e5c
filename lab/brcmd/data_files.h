/// Which files of a data directory and its tablespaces belong into a full backup.
/// What a starting server makes anew (pid files, temporary files, caches, statistics, notification queues) is
/// left out; the directories themselves stay, because the server expects them. The log is handled by the
/// caller. Threads: none. Errors: Failure; files that vanish while the list is made are left out.
#pragma once

#include "lab/common/instance_files.h"
#include "lab/common/set_notes.h"

#include <cstdint>
#include <string>
#include <vector>

namespace oscar_lab
{

struct Data_File {
  std::uint16_t root = 0; // 0 = data directory, n = n-th tablespace
  std::string path;       // relative to the root
  std::uint32_t mode = 0;
  std::uint64_t bytes = 0;
  bool is_directory = false;
  File_Note note; // as found; not of directories
};

struct Data_Files {
  std::string data_directory;
  std::vector<Tablespace> tablespaces;
  std::vector<Data_File> entries; // directories before what they hold; global/pg_control is not among them
  std::vector<std::uint64_t> root_bytes; // sum of the file sizes of each root

  std::string root_path(std::uint16_t root) const;
};

Data_Files list_data_files(const std::string& data_directory);
/// The files at the top of the data directory only: the server's settings are among them.
Data_Files list_top_files(const std::string& data_directory);

} // namespace oscar_lab

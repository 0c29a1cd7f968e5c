#include "lab/brcmd/data_files.h"

#include "lab/common/text.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <sys/stat.h>

namespace oscar_lab
{

namespace
{

const char* const emptied_directories[] = {"pg_dynshmem",  "pg_notify",   "pg_replslot", "pg_serial",
                                           "pg_snapshots", "pg_stat_tmp", "pg_subtrans", "pg_tblspc"};
const char* const left_out_files[] = {"postmaster.pid",   "postmaster.opts", "backup_label",
                                      "tablespace_map",   "backup_manifest", "current_logfiles",
                                      "global/pg_control"};

template <std::size_t N> bool contains(const char* const (&list)[N], const std::string& text)
{
  return std::any_of(std::begin(list), std::end(list), [&text](const char* entry) { return text == entry; });
}

/// "t3_16403": a relation that only its own session sees.
bool is_temporary_relation(const std::string& name)
{
  if (name.size() < 4 || name[0] != 't' || !std::isdigit(static_cast<unsigned char>(name[1])))
    return false;
  const auto underscore = name.find_first_not_of("0123456789", 1);
  return underscore != std::string::npos && name[underscore] == '_' && underscore + 1 < name.size() &&
         std::isdigit(static_cast<unsigned char>(name[underscore + 1]));
}

bool left_out(std::uint16_t root, const std::string& path, const std::string& name)
{
  if (starts_with(name, "pgsql_tmp") || starts_with(name, "pg_internal.init") || is_temporary_relation(name))
    return true;
  return root == 0 && contains(left_out_files, path);
}

std::uint64_t nanoseconds(const timespec& time)
{
  return static_cast<std::uint64_t>(time.tv_sec) * 1000000000U + static_cast<std::uint64_t>(time.tv_nsec);
}

File_Note note_of(const struct stat& status)
{
  File_Note note;
  note.bytes = static_cast<std::uint64_t>(status.st_size);
  note.inode = status.st_ino;
  note.modified_nsec = nanoseconds(status.st_mtim);
  note.changed_nsec = nanoseconds(status.st_ctim);
  return note;
}

void walk(Data_Files& files, std::uint16_t root, const std::string& relative, bool deep)
{
  const std::string directory = files.root_path(root) + (relative.empty() ? "" : "/" + relative);
  for (const std::string& name : names_in(directory)) {
    const std::string path = relative.empty() ? name : relative + "/" + name;
    struct stat status;
    if (left_out(root, path, name))
      continue;
    if (::lstat((directory + "/" + name).c_str(), &status) != 0) {
      if (errno == ENOENT)
        continue;
      fail_errno("cannot look at " + directory + "/" + name);
    }
    Data_File entry;
    entry.root = root;
    entry.path = path;
    entry.mode = status.st_mode & 07777;
    entry.is_directory = S_ISDIR(status.st_mode);
    if (!entry.is_directory && !S_ISREG(status.st_mode))
      continue;
    const bool in_log = root == 0 && (path == "pg_wal" || starts_with(path, "pg_wal/"));
    if (in_log && !entry.is_directory)
      continue;
    if (!entry.is_directory) {
      entry.note = note_of(status);
      entry.bytes = static_cast<std::uint64_t>(status.st_size);
      files.root_bytes[root] += entry.bytes;
    }
    files.entries.push_back(entry);
    if (deep && entry.is_directory && !(root == 0 && contains(emptied_directories, path)))
      walk(files, root, path, deep);
  }
}

} // namespace

std::string Data_Files::root_path(std::uint16_t root) const
{
  return root == 0 ? data_directory : tablespaces.at(root - 1U).location;
}

Data_Files list_data_files(const std::string& data_directory)
{
  Data_Files files;
  files.data_directory = data_directory;
  files.tablespaces = tablespaces_of(data_directory);
  files.root_bytes.resize(files.tablespaces.size() + 1);
  for (std::size_t root = 0; root <= files.tablespaces.size(); ++root)
    walk(files, static_cast<std::uint16_t>(root), "", true);
  return files;
}

Data_Files list_top_files(const std::string& data_directory)
{
  Data_Files files;
  files.data_directory = data_directory;
  files.root_bytes.resize(1);
  walk(files, 0, "", false);
  return files;
}

} // namespace oscar_lab

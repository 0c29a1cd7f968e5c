#include "agent/job_presence.h"

#include "base/files.h"
#include "base/path_conf.h"
#include "base/uuid.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <sys/file.h>

namespace kestrel
{
namespace
{
/// Pipes lie one directory below the state directory, one directory for each kind of database.
void remove_stale_fifos(const std::filesystem::path& state_directory, std::vector<std::string>& removed)
{
  typedef std::filesystem::directory_iterator Entries;
  std::error_code failure;
  for (Entries folder(state_directory, failure), end; !failure && folder != end; folder.increment(failure)) {
    // What goes wrong with one directory or file ends nothing.
    std::error_code problem;
    if (!folder->is_directory(problem))
      continue;
    for (Entries entry(folder->path(), problem); !problem && entry != end; entry.increment(problem)) {
      std::error_code ignored;
      const std::filesystem::path& path = entry->path();
      const std::string name = path.filename();
      if (entry->is_fifo(ignored) && name.size() > 5 && name.compare(name.size() - 5, 5, "_fifo") == 0 &&
          std::filesystem::remove(path, ignored))
        removed.push_back(path);
    }
  }
}

/// What killed exports and imports left: data that lies nowhere else in clear. Only directories named like a
/// definition are theirs.
void remove_stale_dumps(std::vector<std::string>& removed)
{
  std::error_code failure;
  const std::string root = product_path("/var/cache/tarnvik/kestrel3/oscar/dump");
  for (std::filesystem::directory_iterator folder(root, failure), end; !failure && folder != end;
       folder.increment(failure))
    // What stays is tried again, and told, by the definition's next run.
    if (is_uuid(folder->path().filename()) && rm_rf(folder->path().c_str()) == 0)
      removed.push_back(folder->path());
}
} // namespace

bool Job_Presence::enter(std::string& error, std::vector<std::string>* removed)
{
  const std::string path = state_path("jobs.lock");
  Auto_Closer<int, Auto_Handle_Trait> lock(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0640));
  if (lock.get() < 0) {
    error = "cannot open " + path + ": " + std::strerror(errno);
    return false;
  }
  // Alone: nobody else can be using a pipe or a dump file, and nobody can start to before the lock is shared
  // again.
  if (::flock(lock.get(), LOCK_EX | LOCK_NB) == 0) {
    std::vector<std::string> gone;
    remove_stale_fifos(std::filesystem::path(path).parent_path(), gone);
    remove_stale_dumps(gone);
    if (removed)
      removed->swap(gone);
  }
  if (::flock(lock.get(), LOCK_SH) != 0) {
    error = "cannot lock " + path + ": " + std::strerror(errno);
    return false;
  }
  lock_.reset(lock.release());
  return true;
}
} // namespace kestrel

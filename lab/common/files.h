/// Files and descriptors of the stand-in.
/// Threads:   no shared state.
/// Ownership: Descriptor and File_Lock own what they open; every descriptor is close-on-exec.
/// Errors:    everything throws Failure with the path and the system's reason, except where bool is
///            returned.
/// Crash:     replace_file leaves the old or the new content, never a mixture; a stray NAME.new may stay
///            behind.
#pragma once

#include <cstddef>
#include <string>
#include <sys/types.h>
#include <vector>

namespace oscar_lab
{

class Descriptor
{
public:
  Descriptor() = default;
  explicit Descriptor(int fd) : fd_(fd) {}
  Descriptor(Descriptor&& other) noexcept : fd_(other.release()) {}
  Descriptor& operator=(Descriptor&& other) noexcept;
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  ~Descriptor() { reset(); }

  int get() const { return fd_; }
  bool valid() const { return fd_ >= 0; }
  int release();
  void reset();

private:
  int fd_ = -1;
};

/// Owner of a server's files; also the account that the server runs under.
struct Owner {
  uid_t uid = 0;
  gid_t gid = 0;
};

Descriptor open_file(const std::string& path, int flags, mode_t mode = 0);
/// Loops until all bytes went out. EPIPE comes back as a Failure like every other error.
void write_all(int fd, const void* data, std::size_t size, const std::string& what);
/// Reads until size bytes are in or the end is reached; gives the count.
std::size_t read_full(int fd, void* data, std::size_t size, const std::string& what);

bool path_exists(const std::string& path); // a dangling symbolic link counts as existing
bool is_regular_file(const std::string& path);
bool is_directory(const std::string& path);
std::string parent_directory(const std::string& path);
std::string read_file(const std::string& path);
std::string read_link(const std::string& path);
Owner owner_of(const std::string& path);

/// New content under a temporary name, synced, renamed, directory synced.
void replace_file(const std::string& path, const std::string& content, mode_t mode);
/// The same without the syncs, for files that mean nothing after a crash of the host.
void replace_volatile_file(const std::string& path, const std::string& content, mode_t mode);
void copy_file(const std::string& from, const std::string& to, mode_t mode);
void rename_path(const std::string& from, const std::string& to);
/// Creates the directory (the parent must exist) or accepts it when it is there.
void make_directory(const std::string& path, mode_t mode);
/// Gives one path to its owner; does nothing unless running as root.
void give_to(const std::string& path, const Owner& owner);
/// Removes a file or a whole tree; a missing path is no error. Symbolic links are removed, not followed.
void remove_tree(const std::string& path);
/// Sorted; "." and ".." are not among them. A missing directory is empty.
std::vector<std::string> names_in(const std::string& directory);
void sync_directory(const std::string& path);
/// Brings everything written to the file system that holds path onto the disk.
void sync_file_system(const std::string& path);

/// An exclusive lock on a file, released by the destructor or when every inheriting process has ended.
class File_Lock
{
public:
  /// Waits at most timeout_msec for the lock; held() tells whether it was got.
  File_Lock(const std::string& path, int timeout_msec);
  bool held() const { return held_; }
  int fd() const { return fd_.get(); }

private:
  Descriptor fd_;
  bool held_ = false;
};

} // namespace oscar_lab

#include "lab/brcmd/side_tree.h"

#include "lab/brcmd/page_delta.h"
#include "lab/common/swap_journal.h"
#include "lab/common/text.h"

#include <algorithm>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace oscar_lab
{

namespace
{

constexpr std::uint64_t early_write_back_bytes = 1024 * 1024;
constexpr mode_t file_mode = 0600;

bool is_safe_path(const std::string& path)
{
  if (path.empty() || path[0] == '/' || path.find('\0') != std::string::npos)
    return false;
  for (std::size_t begin = 0; begin <= path.size();) {
    const std::size_t end = std::min(path.find('/', begin), path.size());
    const std::string part = path.substr(begin, end - begin);
    if (part.empty() || part == "." || part == "..")
      return false;
    begin = end + 1;
  }
  return true;
}

void remove_unnamed_in(const std::string& directory, const std::set<std::string>& named)
{
  for (const std::string& entry : names_in(directory)) {
    const std::string path = directory + "/" + entry;
    if (named.count(path) == 0)
      remove_tree(path);
    else if (is_directory(path))
      remove_unnamed_in(path, named);
  }
}

bool is_number(const std::string& text)
{
  return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

} // namespace

Side_Tree::Side_Tree(const Instance_Files& files)
    : files_(files), owner_(owner_of(files.directory())), roots_{{"", files.data()}}, numbers_{0}
{
  make_root(files.data());
}

Side_Tree::Side_Tree(const Instance_Files& files, const std::vector<Restored_Root>& roots)
    : files_(files), owner_(owner_of(files.directory())), roots_(roots), numbers_{0}
{
}

std::string Side_Tree::data() const
{
  return side_of(files_.data());
}

void Side_Tree::make_root(const std::string& target)
{
  const std::string side = side_of(target);
  note_side(files_, side);
  remove_tree(side);
  make_directory(side, 0700);
  give_to(side, owner_);
}

void Side_Tree::tablespace(std::uint16_t root, const std::string& oid, const std::string& location)
{
  const bool own = starts_with(location, "@/");
  if (root != numbers_.size() || !is_number(oid) ||
      !is_safe_path(own ? location.substr(2) : location.substr(std::min<std::size_t>(1, location.size()))))
    throw Failure("the backup stream is damaged: bad tablespace");
  const std::string target = own ? files_.directory() + location.substr(1) : location;
  for (std::size_t i = 0; i < roots_.size(); ++i) {
    if (roots_[i].target != target)
      continue;
    if (!everything_named_ || named_.count(side_of(target)) != 0)
      throw Failure("the backup stream is damaged: a tablespace occurs twice");
    if (roots_[i].oid != oid) { // dropped, and another one created in its place
      make_root(target);
      roots_[i].oid = oid;
    }
    numbers_.push_back(i);
    name(side_of(target));
    return;
  }
  if (!is_directory(parent_directory(target)))
    throw Failure("the directory of data file " + datafile_of(target) + " does not exist");
  make_root(target);
  numbers_.push_back(roots_.size());
  roots_.push_back({oid, target});
  name(side_of(target));
}

void Side_Tree::future_tablespace(const std::string& oid, const std::string& location,
                                  const std::string& source_directory)
{
  if (!is_number(oid) || location.empty() || location[0] != '/' || !is_safe_path(location.substr(1)))
    throw Failure("the log in the backup names an odd tablespace");
  for (const Restored_Root& known : roots_)
    if (known.target == location)
      return;
  if (starts_with(location, source_directory + "/") && source_directory != files_.directory())
    throw Failure("data file " + datafile_of(location) +
                  " was created after the full backup; another instance cannot take its place");
  if (!is_directory(parent_directory(location)))
    throw Failure("the directory of data file " + datafile_of(location) + " does not exist");
  make_root(location);
  roots_.push_back({oid, location});
}

std::string Side_Tree::path_of(const Frame& frame) const
{
  if (frame.root >= numbers_.size() || !is_safe_path(frame.path))
    throw Failure("the backup stream is damaged: bad path");
  return side_of(roots_[numbers_[frame.root]].target) + "/" + frame.path;
}

Descriptor Side_Tree::open_for_writing(const std::string& path, int flags) const
{
  Descriptor file = open_file(path, O_WRONLY | O_NOFOLLOW | flags, file_mode);
  if (::geteuid() == 0 && ::fchown(file.get(), owner_.uid, owner_.gid) != 0)
    fail_errno("cannot change the owner of " + path);
  return file;
}

void Side_Tree::directory(const Frame& frame)
{
  const std::string path = path_of(frame);
  name(path);
  make_directory(path, frame.mode & 0777);
  give_to(path, owner_);
}

void Side_Tree::file(const Frame& frame, Image_Reader& image)
{
  const std::string path = path_of(frame);
  name(path);
  const Descriptor file = open_for_writing(path, O_CREAT | O_TRUNC);
  if (::fchmod(file.get(), frame.mode & 0777) != 0)
    fail_errno("cannot set the mode of " + path);
  image.copy_payload(frame, file.get(), path);
  if (frame.file_bytes > frame.payload_bytes &&
      ::ftruncate(file.get(), static_cast<off_t>(frame.file_bytes)) != 0)
    fail_errno("cannot extend " + path);
  // Lets the disk work while the next files come in; the final sync has less to wait for.
  if (frame.payload_bytes >= early_write_back_bytes)
    ::sync_file_range(file.get(), 0, 0, SYNC_FILE_RANGE_WRITE);
}

std::uint64_t Side_Tree::log(const Frame& frame, const std::string& piece, const Log_Shape& shape)
{
  const std::uint64_t lsn = segment_of_name(shape, frame.path) * shape.segment_bytes + frame.mode;
  if (frame.mode + piece.size() > shape.segment_bytes)
    throw Failure("the backup stream is damaged: log beyond its segment");
  check_log_pages(shape, lsn, piece);
  const std::string path = data() + "/pg_wal/" + frame.path;
  name(path);
  const Descriptor file = open_for_writing(path, O_CREAT);
  // The rest of the segment stays zero, which is where the server finds the end of the log.
  if (::ftruncate(file.get(), static_cast<off_t>(shape.segment_bytes)) != 0 ||
      ::lseek(file.get(), static_cast<off_t>(frame.mode), SEEK_SET) < 0)
    fail_errno("cannot extend " + path);
  write_all(file.get(), piece.data(), piece.size(), path);
  return lsn;
}

void Side_Tree::pages(const Frame& frame, const std::string& pages)
{
  const std::string path = path_of(frame);
  const std::uint64_t offset = frame.mode * data_page_bytes;
  name(path);
  if (pages.size() % data_page_bytes != 0 || offset + pages.size() > frame.file_bytes)
    throw Failure("the backup stream is damaged: pages beyond their file");
  if (!is_regular_file(path))
    throw Failure("the restored data lack " + frame.path + ": a set is missing");
  const Descriptor file = open_for_writing(path, 0);
  if (::ftruncate(file.get(), static_cast<off_t>(frame.file_bytes)) != 0 ||
      ::lseek(file.get(), static_cast<off_t>(offset), SEEK_SET) < 0)
    fail_errno("cannot extend " + path);
  write_all(file.get(), pages.data(), pages.size(), path);
}

void Side_Tree::unchanged(const Frame& frame)
{
  const std::string path = path_of(frame);
  struct stat status;
  name(path);
  if (::lstat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode) ||
      static_cast<std::uint64_t>(status.st_size) != frame.file_bytes)
    throw Failure("the restored data lack " + frame.path + " or have another one: a set is missing");
}

void Side_Tree::expect_everything()
{
  everything_named_ = true;
  name(data());
  for (const std::string& file : names_in(data() + "/pg_wal"))
    if (is_regular_file(data() + "/pg_wal/" + file))
      remove_tree(data() + "/pg_wal/" + file);
}

void Side_Tree::name(const std::string& path)
{
  if (everything_named_)
    named_.insert(path);
}

void Side_Tree::remove_unnamed()
{
  std::vector<Restored_Root> kept;
  for (const Restored_Root& root : roots_) {
    const std::string side = side_of(root.target);
    if (named_.count(side) == 0) {
      remove_tree(side);
      continue;
    }
    kept.push_back(root);
    remove_unnamed_in(side, named_);
  }
  roots_ = kept;
  numbers_.assign(1, 0);
}

void Side_Tree::finish()
{
  if (everything_named_)
    remove_unnamed();
  if (!is_regular_file(data() + "/PG_VERSION") || !is_regular_file(data() + "/global/pg_control"))
    throw Failure("the backup holds no complete database");
  const std::string links = data() + "/pg_tblspc";
  for (const Tablespace& old : tablespaces_of(data()))
    remove_tree(links + "/" + old.oid);
  for (const Restored_Root& root : roots_) {
    if (root.oid.empty())
      continue;
    const std::string link = links + "/" + root.oid;
    if (::symlink(root.target.c_str(), link.c_str()) != 0)
      fail_errno("cannot link " + link);
    give_to(link, owner_);
  }
  for (const Restored_Root& root : roots_)
    sync_file_system(side_of(root.target));
}

} // namespace oscar_lab

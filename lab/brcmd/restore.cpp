#include "lab/brcmd/restore.h"

#include "lab/brcmd/image.h"
#include "lab/brcmd/pipe.h"
#include "lab/common/server_control.h"
#include "lab/common/swap_journal.h"
#include "lab/common/text.h"

#include <algorithm>
#include <fcntl.h>
#include <set>
#include <unistd.h>

namespace oscar_lab
{

namespace
{

constexpr int lock_timeout_msec = 2000;
constexpr const char* postgres_major = "15";
constexpr std::uint64_t early_write_back_bytes = 1024 * 1024;

/// The directories that a restore fills before it swaps them in.
class Side_Tree
{
public:
  explicit Side_Tree(const Instance_Files& files);
  /// Removes what was filled, unless keep() was called.
  ~Side_Tree();
  void add_tablespace(std::uint16_t root, const std::string& oid, const std::string& location);
  void add_directory(const Frame& frame);
  void add_file(const Frame& frame, Image_Reader& image);
  /// Checks that the data directory is complete, links the tablespaces and brings everything to disk.
  void finish();
  /// Old tablespaces that the backup does not know go away with the old data.
  Swap_Plan plan() const;
  void make_placeholders() const;
  void keep() { kept_ = true; }

private:
  struct Root {
    std::string oid;
    std::string target;
  };
  std::string path_of(const Frame& frame) const;
  void make_root(const std::string& target);

  const Instance_Files& files_;
  Owner owner_;
  std::vector<Root> roots_;
  bool kept_ = false;
};

Side_Tree::Side_Tree(const Instance_Files& files) : files_(files), owner_(owner_of(files.directory()))
{
  make_root(files.data());
  roots_.push_back({"", files.data()});
}

Side_Tree::~Side_Tree()
{
  if (kept_)
    return;
  try {
    recover_swap(files_); // no journal yet: this removes the side directories only
  } catch (const std::exception&) {
    // The next restore or server start removes them.
  }
}

void Side_Tree::make_root(const std::string& target)
{
  const std::string side = side_of(target);
  note_side(files_, side);
  remove_tree(side);
  make_directory(side, 0700);
  give_to(side, owner_);
}

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

void Side_Tree::add_tablespace(std::uint16_t root, const std::string& oid, const std::string& location)
{
  const bool own = starts_with(location, "@/");
  if (root != roots_.size() || oid.empty() || oid.find_first_not_of("0123456789") != std::string::npos ||
      !is_safe_path(own ? location.substr(2) : location.substr(std::min<std::size_t>(1, location.size()))))
    throw Failure("the backup stream is damaged: bad tablespace");
  const std::string target = own ? files_.directory() + location.substr(1) : location;
  for (const Root& known : roots_)
    if (known.target == target)
      throw Failure("the backup stream is damaged: a tablespace occurs twice");
  if (!is_directory(parent_directory(target)))
    throw Failure("the directory of data file " + datafile_of(target) + " does not exist");
  make_root(target);
  roots_.push_back({oid, target});
}

std::string Side_Tree::path_of(const Frame& frame) const
{
  if (frame.root >= roots_.size() || !is_safe_path(frame.path))
    throw Failure("the backup stream is damaged: bad path");
  return side_of(roots_[frame.root].target) + "/" + frame.path;
}

void Side_Tree::add_directory(const Frame& frame)
{
  const std::string path = path_of(frame);
  make_directory(path, frame.mode & 0777);
  give_to(path, owner_);
}

void Side_Tree::add_file(const Frame& frame, Image_Reader& image)
{
  const std::string path = path_of(frame);
  const Descriptor file = open_file(path, O_WRONLY | O_CREAT | O_EXCL, frame.mode & 0777);
  if (::geteuid() == 0 && ::fchown(file.get(), owner_.uid, owner_.gid) != 0)
    fail_errno("cannot change the owner of " + path);
  image.copy_payload(frame, file.get(), path);
  if (frame.file_bytes > frame.payload_bytes &&
      ::ftruncate(file.get(), static_cast<off_t>(frame.file_bytes)) != 0)
    fail_errno("cannot extend " + path);
  // Lets the disk work while the next files come in; the final sync has less to wait for.
  if (frame.payload_bytes >= early_write_back_bytes)
    ::sync_file_range(file.get(), 0, 0, SYNC_FILE_RANGE_WRITE);
}

void Side_Tree::finish()
{
  const std::string data = side_of(files_.data());
  if (!is_regular_file(data + "/PG_VERSION") || !is_regular_file(data + "/global/pg_control"))
    throw Failure("the backup holds no complete database");
  for (const Root& root : roots_) {
    if (root.oid.empty())
      continue;
    const std::string link = data + "/pg_tblspc/" + root.oid;
    if (::symlink(root.target.c_str(), link.c_str()) != 0)
      fail_errno("cannot link " + link);
    give_to(link, owner_);
  }
  for (const Root& root : roots_)
    sync_file_system(side_of(root.target));
}

Swap_Plan Side_Tree::plan() const
{
  Swap_Plan plan;
  std::set<std::string> targets;
  for (const Root& root : roots_) {
    plan.pairs.push_back({side_of(root.target), root.target});
    targets.insert(root.target);
  }
  for (const Tablespace& old : tablespaces_of(files_.data()))
    if (targets.count(old.location) == 0)
      plan.pairs.push_back({"", old.location});
  return plan;
}

void Side_Tree::make_placeholders() const
{
  for (const Root& root : roots_) {
    const std::string datafile =
        root.oid.empty() ? files_.directory() + "/SYSTEM.dbf" : datafile_of(root.target);
    if (path_exists(datafile))
      continue;
    replace_file(datafile, "", 0640);
    give_to(datafile, owner_);
  }
}

void check_head(const Properties& head)
{
  const auto value = [&head](const char* key) {
    const auto found = head.find(key);
    return found == head.end() ? std::string() : found->second;
  };
  if (value("format") != "1")
    throw Failure("the backup has a format that this tool does not know");
  if (value("level") != "full")
    throw Failure("a restore must begin with a full backup");
  if (value("version") != postgres_major)
    throw Failure("the backup comes from another version of the server");
}

void read_image(Image_Reader& image, Side_Tree& tree)
{
  Frame frame = image.next();
  if (frame.type != Frame_Type::head)
    throw Failure("the backup stream is damaged: no head");
  check_head(Image_Reader::parse_properties(image.text(frame)));
  for (;;) {
    frame = image.next();
    switch (frame.type) {
    case Frame_Type::tablespace:
      tree.add_tablespace(frame.root, image.text(frame), frame.path);
      break;
    case Frame_Type::directory:
      image.text(frame);
      tree.add_directory(frame);
      break;
    case Frame_Type::file:
      tree.add_file(frame, image);
      break;
    case Frame_Type::end:
      image.text(frame);
      image.require_end();
      return;
    case Frame_Type::head:
      throw Failure("the backup stream is damaged: two heads");
    }
  }
}

} // namespace

void run_restore(const Instance_Files& files, const std::string& pipe_path, Run_Log& log)
{
  files.require_existing();
  require_pipe(pipe_path, false);
  if (running_server(files) != 0)
    throw Failure("instance " + files.name + " is running; stop it first");
  const File_Lock lock(files.lock(), lock_timeout_msec);
  if (!lock.held())
    throw Failure("instance " + files.name + " is in use by a server, a backup or another restore");
  if (recover_swap(files))
    log.info("finished an earlier restore that was cut off");
  log.info("restore of " + files.name);

  const Descriptor pipe = open_pipe_for_reading(pipe_path);
  Image_Reader image(pipe.get());
  const std::string announced = image.info();
  if (image.info() != announced)
    throw Failure("the backup does not begin with the announced info block");
  Side_Tree tree(files);
  read_image(image, tree);
  tree.finish();
  const Swap_Plan plan = tree.plan();
  tree.keep(); // from here on the journal decides
  commit_swap(files, plan);
  tree.make_placeholders();
  remove_tree(files.incomplete_mark());
  log.info("restore of " + files.name + " finished");
}

} // namespace oscar_lab

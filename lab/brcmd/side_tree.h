/// The side directories that the runs of a restore fill, set after set, before they take the places of the
/// old data. Threads: none. Errors: Failure; what the directories hold is worthless then. Crash: the note
/// about the restore (pending_restore.h) tells whether they hold a whole set.
#pragma once

#include "lab/brcmd/image.h"
#include "lab/brcmd/log_segments.h"
#include "lab/common/instance_files.h"
#include "lab/common/pending_restore.h"

#include <set>
#include <string>
#include <vector>

namespace oscar_lab
{

class Side_Tree
{
public:
  /// New and empty, for a full backup.
  explicit Side_Tree(const Instance_Files& files);
  /// As the set before left them.
  Side_Tree(const Instance_Files& files, const std::vector<Restored_Root>& roots);

  /// Before the frames of a set that names all there is: what it does not name goes away in finish(). The log
  /// of the set before goes away at once.
  void expect_everything();

  /// The tablespaces come in the order of their numbers in the set, which need not be the ones of the set
  /// before.
  void tablespace(std::uint16_t root, const std::string& oid, const std::string& location);
  void directory(const Frame& frame);
  /// A whole file; takes the place of one that is there.
  void file(const Frame& frame, Image_Reader& image);
  /// Pages of a file that is there; it gets the size that the frame gives.
  void pages(const Frame& frame, const std::string& pages);
  /// A file that must be there with this size.
  void unchanged(const Frame& frame);
  /// Log at its place; gives its position.
  std::uint64_t log(const Frame& frame, const std::string& piece, const Log_Shape& shape);
  /// An empty directory for a tablespace that the log will create there. source_directory is the instance's
  /// directory when the log was written: the log knows full paths only, and must not lead back there from
  /// another instance.
  void future_tablespace(const std::string& oid, const std::string& location,
                         const std::string& source_directory);

  /// Checks that the data directory is complete, links the tablespaces and brings everything to disk.
  void finish();
  const std::vector<Restored_Root>& roots() const { return roots_; }
  std::string data() const;

private:
  std::string path_of(const Frame& frame) const;
  void make_root(const std::string& target);
  void name(const std::string& path);
  void remove_unnamed();
  Descriptor open_for_writing(const std::string& path, int flags) const;

  const Instance_Files& files_;
  Owner owner_;
  std::vector<Restored_Root> roots_;
  std::vector<std::size_t> numbers_; // index in roots_ of each root number of this set
  bool everything_named_ = false;
  std::set<std::string> named_; // full paths, when the set names everything
};

} // namespace oscar_lab

#include "lab/brcmd/restore.h"

#include "lab/brcmd/image.h"
#include "lab/brcmd/pipe.h"
#include "lab/brcmd/set_head.h"
#include "lab/brcmd/side_tree.h"
#include "lab/common/child.h"
#include "lab/common/instance_lock.h"
#include "lab/common/server_control.h"
#include "lab/common/swap_journal.h"
#include "lab/common/text.h"

namespace oscar_lab
{

namespace
{

constexpr int lock_timeout_msec = 2000;

/// A chain of which one set failed is worth nothing: the instance keeps its old data.
class Drop_On_Failure
{
public:
  explicit Drop_On_Failure(const Instance_Files& files) : files_(files) {}
  ~Drop_On_Failure()
  {
    if (kept_)
      return;
    try {
      drop_restore(files_);
    } catch (const std::exception&) {
      // The next restore or server start does it.
    }
  }
  Drop_On_Failure(const Drop_On_Failure&) = delete;
  Drop_On_Failure& operator=(const Drop_On_Failure&) = delete;
  void keep() { kept_ = true; }

private:
  const Instance_Files& files_;
  bool kept_ = false;
};

/// The word behind "level" in an info block; empty when there is none.
std::string level_of_info(const std::string& block)
{
  for (const std::string& line : split_lines(block.substr(info_head_bytes)))
    if (starts_with(line, "level "))
      return line.substr(6);
  return {};
}

/// Creates what the log is going to need, and makes sure that it can be read up to its end.
void read_ahead_in_log(Side_Tree& tree, const Instance_Files& files, const Set_Head& head, const Set_End& end)
{
  const Child_Result result = run_child(
      {std::string(LAB_POSTGRES_BIN) + "/pg_waldump", "--path", tree.data() + "/pg_wal", "--timeline",
       std::to_string(head.log_shape.timeline), "--start", format_lsn(end.log_part.first_lsn), "--end",
       format_lsn(end.log_part.end_lsn), "--rmgr", "Tablespace"},
      owner_of(files.directory()));
  if (result.status != 0)
    throw Failure("the log in the backup cannot be read: " + trim(result.output));
  for (const std::string& line : split_lines(result.output)) {
    const std::string mark = "desc: CREATE ";
    const auto begin = line.find(mark);
    const auto quote = line.find('"', begin);
    if (begin == std::string::npos || quote == std::string::npos || line.rfind('"') == quote)
      continue;
    tree.future_tablespace(trim(line.substr(begin + mark.size(), quote - begin - mark.size())),
                           line.substr(quote + 1, line.rfind('"') - quote - 1), head.directory);
  }
}

/// What a set may hold besides head and end.
bool belongs_into(const Frame& frame, const Set_Head& head)
{
  const bool online = head.mode == "online";
  switch (frame.type) {
  case Frame_Type::file:
    return true;
  case Frame_Type::tablespace:
  case Frame_Type::directory:
    return head.is_full() || !online;
  case Frame_Type::pages:
  case Frame_Type::unchanged:
    return !head.is_full() && !online;
  case Frame_Type::log:
    return !head.is_full() || !online;
  default:
    return false;
  }
}

/// Takes the frames of one set into the side directories.
class Set_Reader
{
public:
  Set_Reader(Image_Reader& image, Side_Tree& tree, const Set_Head& head)
      : image_(image), tree_(tree), head_(head), log_end_(head.first_lsn),
        exact_log_(head.mode == "online" && !head.is_full())
  {
  }
  /// All frames between head and end; gives what the end says.
  Set_End read();

private:
  void take(const Frame& frame);
  void take_log(const Frame& frame);

  Image_Reader& image_;
  Side_Tree& tree_;
  const Set_Head& head_;
  std::uint64_t log_end_;
  bool exact_log_; // without a gap
};

Set_End Set_Reader::read()
{
  for (;;) {
    const Frame frame = image_.next();
    if (frame.type == Frame_Type::end) {
      const Set_End end = parse_set_end(image_.text(frame));
      image_.require_end();
      if (exact_log_ && log_end_ != end.log_part.end_lsn)
        throw Failure("the backup stream is damaged: a piece of log is missing");
      return end;
    }
    if (!belongs_into(frame, head_))
      throw Failure("the backup stream is damaged: unexpected frame");
    take(frame);
  }
}

void Set_Reader::take(const Frame& frame)
{
  switch (frame.type) {
  case Frame_Type::tablespace:
    tree_.tablespace(frame.root, image_.text(frame), frame.path);
    break;
  case Frame_Type::directory:
    image_.text(frame);
    tree_.directory(frame);
    break;
  case Frame_Type::file:
    tree_.file(frame, image_);
    break;
  case Frame_Type::pages:
    tree_.pages(frame, image_.text(frame));
    break;
  case Frame_Type::unchanged:
    image_.text(frame);
    tree_.unchanged(frame);
    break;
  default:
    take_log(frame);
  }
}

void Set_Reader::take_log(const Frame& frame)
{
  const std::string piece = image_.text(frame);
  const std::uint64_t lsn = tree_.log(frame, piece, head_.log_shape);
  // Only the zeros at the end of a segment may be left out.
  const std::uint64_t next_segment =
      (log_end_ / head_.log_shape.segment_bytes + 1) * head_.log_shape.segment_bytes;
  if (exact_log_ && lsn != log_end_ && lsn != next_segment)
    throw Failure("the backup stream is damaged: a piece of log is missing");
  log_end_ = lsn + piece.size();
}

void restore_set(const Instance_Files& files, Image_Reader& image, Side_Tree& tree, const Set_Head& head,
                 Pending_Restore& pending)
{
  if (head.mode == "offline" && !head.is_full())
    tree.expect_everything();
  const Set_End end = Set_Reader(image, tree, head).read();
  if (head.mode == "online")
    read_ahead_in_log(tree, files, head, end);
  tree.finish();
  pending.complete = true;
  pending.full_id = head.full_id;
  pending.id = head.id;
  pending.mode = head.mode;
  pending.system = head.system;
  pending.timeline = head.log_shape.timeline;
  pending.segment_bytes = head.log_shape.segment_bytes;
  pending.lsn = end.lsn;
  pending.roots = tree.roots();
  write_pending(files, pending);
}

Set_Head read_head(Image_Reader& image, const std::string& level)
{
  const Frame frame = image.next();
  if (frame.type != Frame_Type::head)
    throw Failure("the backup stream is damaged: no head");
  const Set_Head head = parse_set_head(image.text(frame));
  if (head.level != level)
    throw Failure("the backup stream is damaged: its info block belongs to another backup");
  return head;
}

} // namespace

void run_restore(const Instance_Files& files, const std::string& pipe_path, Run_Log& log)
{
  files.require_existing();
  require_pipe(pipe_path, false);
  if (running_server(files) != 0)
    throw Failure("instance " + files.name + " is running; stop it first");
  const Instance_Lock lock(files, "restore", lock_timeout_msec);
  if (lock.state() != Instance_Lock::State::held)
    throw Failure("instance " + files.name + " is in use by a server, a backup or another restore");
  const Settled settled = settle_cut_off(files);
  if (settled != Settled::nothing)
    log.info(settled == Settled::in_place ? "finished an earlier restore that was cut off"
                                          : "dropped an earlier restore that was cut off");
  log.info("restore of " + files.name);

  Drop_On_Failure dropping(files);
  const Descriptor pipe = open_pipe_for_reading(pipe_path);
  Image_Reader image(pipe.get());
  const std::string announced = image.info();
  const std::string level = level_of_info(announced);
  Pending_Restore pending;
  if (level == "full") {
    settle_restore(files); // an earlier restore that nobody started the server after is what was there before
    pending = Pending_Restore();
  } else {
    require_continuation(level, read_pending(files, pending));
    // From here on only the end of this set makes the side directories worth anything.
    pending.complete = false;
    write_pending(files, pending);
  }
  if (image.info() != announced)
    throw Failure("the backup does not begin with the announced info block");
  const Set_Head head = read_head(image, level);
  if (head.is_full()) {
    Side_Tree tree(files);
    restore_set(files, image, tree, head, pending);
  } else {
    check_continuation(head, pending);
    Side_Tree tree(files, pending.roots);
    restore_set(files, image, tree, head, pending);
  }
  dropping.keep();
  log.info("restored backup " + head.id + " (" + head.level + ") of " + files.name);
}

} // namespace oscar_lab

#include "lab/brcmd/backup_parts.h"
#include "lab/brcmd/page_delta.h"
#include "lab/brcmd/pipe.h"
#include "lab/common/child.h"
#include "lab/common/instance_lock.h"
#include "lab/common/server_control.h"
#include "lab/common/swap_journal.h"
#include "lab/common/text.h"

#include <algorithm>
#include <fcntl.h>
#include <unistd.h>

namespace oscar_lab
{

namespace
{

constexpr int lock_timeout_msec = 2000;

/// What pg_controldata says about a stopped server.
struct Stopped_State {
  Log_Shape log_shape;
  Log_Range range; // of the record that says so
  std::string system;
  std::uint64_t next_transaction = 0;
};

Stopped_State read_stopped_state(const Instance_Files& files)
{
  const Child_Result result = run_child(
      {std::string(LAB_POSTGRES_BIN) + "/pg_controldata", "-D", files.data()}, owner_of(files.data()));
  if (result.status != 0)
    throw Failure("pg_controldata failed: " + trim(result.output));
  Properties values;
  for (const std::string& line : split_lines(result.output)) {
    const auto colon = line.find(':');
    if (colon != std::string::npos)
      values[line.substr(0, colon)] = trim(line.substr(colon + 1));
  }
  if (values["Database cluster state"] != "shut down")
    throw Failure("the database was not shut down cleanly; start and stop it first");
  Stopped_State state;
  state.log_shape.timeline = static_cast<unsigned>(std::stoul(values["Latest checkpoint's TimeLineID"]));
  state.log_shape.segment_bytes = std::stoull(values["Bytes per WAL segment"]);
  state.range.first_lsn = parse_lsn(values["Latest checkpoint location"]);
  state.range.end_lsn = state.range.first_lsn + 1;
  state.system = values["Database system identifier"];
  const std::string next = values["Latest checkpoint's NextXID"]; // epoch:number
  const auto colon = next.find(':');
  state.next_transaction = (std::stoull(next) << 32) + std::stoull(next.substr(colon + 1));
  return state;
}

/// By root; the control file, which always goes along, counts for the data directory.
std::vector<std::uint64_t> bytes_to_send(const Data_Files& data, const std::vector<File_Change>& changes)
{
  std::vector<std::uint64_t> bytes(data.root_bytes.size());
  bytes[0] = data_page_bytes;
  for (std::size_t i = 0; i < data.entries.size(); ++i)
    if (!data.entries[i].is_directory)
      bytes[data.entries[i].root] +=
          changes[i].kind == Change::whole ? data.entries[i].bytes : changes[i].bytes;
  return bytes;
}

void write_pages(Image_Writer& image, const Data_Files& data, const Data_File& entry,
                 const File_Change& change)
{
  const std::string path = data.root_path(entry.root) + "/" + entry.path;
  const Descriptor file = open_file(path, O_RDONLY);
  Frame frame;
  frame.type = Frame_Type::pages;
  frame.root = entry.root;
  frame.path = entry.path;
  frame.file_bytes = entry.bytes;
  if (change.runs.empty()) // its size may have changed all the same
    image.piece(frame, "");
  for (const Page_Run& run : change.runs) {
    std::string pages(run.count * data_page_bytes, '\0');
    frame.mode = run.first;
    if (::lseek(file.get(), static_cast<off_t>(run.first * data_page_bytes), SEEK_SET) < 0 ||
        read_full(file.get(), &pages[0], pages.size(), path) != pages.size())
      throw Failure("cannot read the pages of " + path);
    image.piece(frame, pages);
  }
}

void write_change(Image_Writer& image, const Data_Files& data, const Data_File& entry,
                  const File_Change& change)
{
  if (entry.is_directory || change.kind == Change::whole) {
    write_entry(image, data, entry, false);
    return;
  }
  if (change.kind == Change::pages) {
    write_pages(image, data, entry, change);
    return;
  }
  Frame frame;
  frame.type = Frame_Type::unchanged;
  frame.root = entry.root;
  frame.mode = entry.mode;
  frame.path = entry.path;
  frame.file_bytes = entry.bytes;
  image.piece(frame, "");
}

/// All that a server needs to see that it was shut down: the page with the record that says so, the one
/// behind it, into which the record may reach, and the first page of the segment.
void write_checkpoint_log(Image_Writer& image, const Log_Reader& reader, const Log_Shape& shape,
                          std::uint64_t lsn)
{
  const std::uint64_t page = lsn / log_page_bytes * log_page_bytes;
  const std::uint64_t first = lsn / shape.segment_bytes * shape.segment_bytes;
  if (first != page)
    write_log_bytes(image, reader, shape, {first, first + log_page_bytes});
  write_log_bytes(image, reader, shape, {page, page + log_page_bytes});
  if (reader.has(page + log_page_bytes, log_page_bytes))
    write_log_bytes(image, reader, shape, {page + log_page_bytes, page + 2 * log_page_bytes});
}

} // namespace

void back_up_offline(const Instance_Files& files, const Backup_Request& request, Run_Log& log)
{
  if (running_server(files) != 0)
    throw Failure("the database is in NOARCHIVELOG mode and must be shut down for a backup");
  // Keeps the server down for the time of the backup.
  const Instance_Lock lock(files, "backup", lock_timeout_msec);
  if (lock.state() != Instance_Lock::State::held)
    throw Failure("instance " + files.name + " is in use by a server or a restore");
  settle_restore(files);
  const Stopped_State state = read_stopped_state(files);
  Backup_Set set;
  set.level = request.level;
  set.notes.mode = "offline";
  set.notes.system = state.system;
  set.log_shape = state.log_shape;
  set.chain = read_chain(files);
  set.point.lsn = state.range.first_lsn;
  set.point.scn = std::max(state.next_transaction, set.chain.last.scn + 1);
  if (!set.is_full())
    find_base(files, set);
  const Descriptor pipe = open_pipe_for_writing(request.pipe, [] {});

  const Data_Files data = list_data_files(files.data());
  for (const Data_File& entry : data.entries)
    if (!entry.is_directory)
      set.notes.files[note_key_of(data, entry)] = entry.note;
  const std::vector<File_Change> changes = set.is_full()
                                               ? std::vector<File_Change>(data.entries.size())
                                               : find_changes(data, set.base, set.log_shape.segment_bytes);
  set.point.id = new_backup_id();
  Image_Writer image(pipe.get());
  write_head(image, files, set, info_text(files, set, data.tablespaces, bytes_to_send(data, changes)));
  write_roots(image, files, data);
  for (std::size_t i = 0; i < data.entries.size(); ++i)
    write_change(image, data, data.entries[i], changes[i]);
  write_checkpoint_log(image, Log_Reader(files, set.log_shape), set.log_shape, state.range.first_lsn);
  write_control_file(image, files.data());
  conclude(image, pipe.get(), files, set, state.range, log);
}

} // namespace oscar_lab

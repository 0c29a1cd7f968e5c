#include "lab/brcmd/backup_parts.h"
#include "lab/brcmd/pipe.h"
#include "lab/common/child.h"
#include "lab/common/server_control.h"
#include "lab/common/swap_journal.h"
#include "lab/common/text.h"

#include <algorithm>

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

} // namespace

void back_up_offline(const Instance_Files& files, const Backup_Request& request, Run_Log& log)
{
  if (running_server(files) != 0)
    throw Failure("the database is in NOARCHIVELOG mode and must be shut down for a backup");
  // Keeps the server down for the time of the backup.
  const File_Lock lock(files.lock(), lock_timeout_msec);
  if (!lock.held())
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
    throw Failure("backup level " + request.level + " is not available without archive logging yet");
  const Descriptor pipe = open_pipe_for_writing(request.pipe, [] {});

  const Data_Files data = list_data_files(files.data());
  for (const Data_File& entry : data.entries)
    if (!entry.is_directory)
      set.notes.files[note_key_of(data, entry)] = entry.note;
  set.point.id = new_backup_id();
  Image_Writer image(pipe.get());
  write_head(image, files, set, info_text(files, set, data.tablespaces, data.root_bytes));
  write_roots(image, files, data);
  for (const Data_File& entry : data.entries)
    write_entry(image, data, entry, false);
  write_log_files(image, files.data(), set.log_shape, state.range);
  write_control_file(image, files.data());
  conclude(image, pipe.get(), files, set, state.range, log);
}

} // namespace oscar_lab

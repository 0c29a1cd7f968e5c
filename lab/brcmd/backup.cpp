#include "lab/brcmd/backup.h"

#include "lab/brcmd/data_files.h"
#include "lab/brcmd/image.h"
#include "lab/brcmd/pipe.h"
#include "lab/common/chain_file.h"
#include "lab/common/child.h"
#include "lab/common/database.h"
#include "lab/common/server_control.h"
#include "lab/common/text.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace oscar_lab
{

namespace
{

constexpr int connect_timeout_seconds = 2;
constexpr std::uint64_t log_page_bytes = 8192;
constexpr const char* control_file = "global/pg_control";

/// Segments of the write-ahead log that a restore needs.
struct Log_Range {
  unsigned timeline = 1;
  std::uint64_t segment_bytes = 16 * 1024 * 1024;
  std::uint64_t first_lsn = 0;
  std::uint64_t end_lsn = 0; // the record that ends here is followed by one more, which switches the segment
};

std::string segment_name(const Log_Range& range, std::uint64_t segment)
{
  const std::uint64_t per_id = 0x100000000U / range.segment_bytes;
  char name[32];
  std::snprintf(name, sizeof name, "%08X%08X%08X", range.timeline, static_cast<unsigned>(segment / per_id),
                static_cast<unsigned>(segment % per_id));
  return name;
}

std::string new_backup_id()
{
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  ::localtime_r(&now, &local);
  char stamp[32];
  std::strftime(stamp, sizeof stamp, "%Y%m%d%H%M%S", &local);
  return std::string(stamp) + "-" + std::to_string(::getpid());
}

/// A line per data file with the bytes behind it. Many tablespaces could exceed what a restoring agent can
/// hold; then the whole size stands in one line.
std::string info_text(const Instance_Files& files, const Data_Files& data)
{
  const std::string system_file = files.directory() + "/SYSTEM.dbf";
  const std::string head = "brcmd 2.5.6x20230817132129\ninstance " + files.name + "\n";
  std::string text = head + system_file + "=" + std::to_string(data.root_bytes[0]) + "\n";
  std::uint64_t total = data.root_bytes[0];
  for (std::size_t i = 0; i < data.tablespaces.size(); ++i) {
    const std::string datafile = datafile_of(data.tablespaces[i].location);
    total += data.root_bytes[i + 1];
    if (is_regular_file(datafile))
      text += datafile + "=" + std::to_string(data.root_bytes[i + 1]) + "\n";
  }
  if (text.size() > max_info_bytes - info_head_bytes)
    text = head + system_file + "=" + std::to_string(total) + "\n";
  return text;
}

/// Places inside the instance's own directory stay relative, so that another home can take the backup.
std::string portable_location(const Instance_Files& files, const std::string& location)
{
  const std::string own = files.directory() + "/";
  return starts_with(location, own) ? "@/" + location.substr(own.size()) : location;
}

void write_roots(Image_Writer& image, const Instance_Files& files, const Data_Files& data)
{
  for (std::size_t i = 0; i < data.tablespaces.size(); ++i)
    image.tablespace(static_cast<std::uint16_t>(i + 1), data.tablespaces[i].oid,
                     portable_location(files, data.tablespaces[i].location));
}

void write_entry(Image_Writer& image, const Data_Files& data, const Data_File& entry, bool may_vanish)
{
  if (entry.is_directory) {
    image.directory(entry.root, entry.path, entry.mode);
    return;
  }
  const std::string path = data.root_path(entry.root) + "/" + entry.path;
  const Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  struct stat status;
  if (!file.valid()) {
    if (errno == ENOENT && may_vanish)
      return;
    fail_errno("cannot open " + path);
  }
  if (::fstat(file.get(), &status) != 0)
    fail_errno("cannot look at " + path);
  Frame frame;
  frame.type = Frame_Type::file;
  frame.root = entry.root;
  frame.mode = entry.mode;
  frame.path = entry.path;
  frame.payload_bytes = frame.file_bytes = static_cast<std::uint64_t>(status.st_size);
  ::posix_fadvise(file.get(), 0, 0, POSIX_FADV_SEQUENTIAL);
  image.file(frame, file.get());
}

void write_small_file(Image_Writer& image, const std::string& path, const std::string& content)
{
  Frame frame;
  frame.type = Frame_Type::file;
  frame.mode = 0600;
  frame.path = path;
  image.file(frame, content);
}

/// The server rewrites this file in place; the same content twice in a row is not a half-written one.
void write_control_file(Image_Writer& image, const std::string& data_directory)
{
  std::string content = read_file(data_directory + "/" + control_file);
  for (int attempt = 0; attempt < 100; ++attempt) {
    const std::string again = read_file(data_directory + "/" + control_file);
    if (again == content)
      break;
    content = again;
  }
  write_small_file(image, control_file, content);
}

void write_log_range(Image_Writer& image, const std::string& data_directory, const Log_Range& range)
{
  const std::uint64_t first = range.first_lsn / range.segment_bytes;
  const std::uint64_t last = (range.end_lsn - 1) / range.segment_bytes;
  for (std::uint64_t segment = first; segment <= last; ++segment) {
    Frame frame;
    frame.type = Frame_Type::file;
    frame.mode = 0600;
    frame.path = "pg_wal/" + segment_name(range, segment);
    frame.file_bytes = frame.payload_bytes = range.segment_bytes;
    if (segment == last) {
      // Up to the end of the page after the one with the last record; the rest may be left from an older
      // segment.
      const std::uint64_t used = range.end_lsn - segment * range.segment_bytes;
      frame.payload_bytes =
          std::min(range.segment_bytes,
                   (used + log_page_bytes - 1) / log_page_bytes * log_page_bytes + log_page_bytes);
    }
    const Descriptor file = open_file(data_directory + "/" + frame.path, O_RDONLY);
    image.file(frame, file.get());
  }
}

/// The archive needs nothing from before a full backup any more.
void trim_archive(const Instance_Files& files, const Log_Range& range, std::uint64_t lsn, Run_Log& log)
{
  // Without the first eight characters, which name the timeline.
  const std::string first_needed = segment_name(range, lsn / range.segment_bytes).substr(8);
  DIR* const directory = ::opendir(files.archive().c_str());
  if (!directory)
    return;
  while (const dirent* const entry = ::readdir(directory)) {
    const std::string name = entry->d_name;
    if (name.size() == 24 && name.find_first_not_of("0123456789ABCDEF") == std::string::npos &&
        name.substr(8) < first_needed && ::unlink((files.archive() + "/" + name).c_str()) != 0)
      log.line("WARNING", "cannot remove " + name + " from the archive");
  }
  ::closedir(directory);
}

/// A backup of a running server: from start() to stop() the server writes its log so that data files read at
/// any moment in between can be repaired from it.
class Online_Backup
{
public:
  Online_Backup(const Instance_Files& files, const Backup_Request& request);
  /// Asks the server to start; a checkpoint is part of that, so the answer may take a while.
  void send_start();
  /// Throws when the server refused; true when the backup is started.
  bool started();
  void wait_started();
  /// Ends the backup on the server and gives the log to send along.
  void stop(std::string& label, Log_Range& range, std::uint64_t& scn);

private:
  Connection connection_;
  Log_Range range_;
  bool started_ = false;
};

Connection log_in(const Instance_Files& files, const Backup_Request& request)
{
  Login login = user_login(files, "", request.port);
  login.user = request.user;
  login.password = request.password;
  login.timeout_seconds = connect_timeout_seconds;
  return Connection(login);
}

Online_Backup::Online_Backup(const Instance_Files& files, const Backup_Request& request)
    : connection_(log_in(files, request))
{
  require_instance(connection_, files.name);
  if (connection_.value("select pg_catalog.current_setting('is_superuser')") != "on")
    throw Failure("permission denied to back the database up");
  range_.segment_bytes = std::stoull(
      connection_.value("select setting from pg_catalog.pg_settings where name = 'wal_segment_size'"));
  range_.timeline = static_cast<unsigned>(
      std::stoul(connection_.value("select timeline_id from pg_catalog.pg_control_checkpoint()")));
  // Keeps the server from recycling the log that the backup needs; goes away with the connection.
  connection_.query("select pg_catalog.pg_create_physical_replication_slot('brcmd_" +
                    std::to_string(::getpid()) + "', true, true)");
}

void Online_Backup::send_start()
{
  if (PQsendQuery(connection_.get(), "select pg_catalog.pg_backup_start('brcmd', true)") != 1)
    throw Failure(connection_.error());
}

bool Online_Backup::started()
{
  if (started_)
    return true;
  if (PQconsumeInput(connection_.get()) != 1)
    throw Failure(connection_.error());
  if (PQisBusy(connection_.get()) != 0)
    return false;
  wait_started();
  return true;
}

void Online_Backup::wait_started()
{
  if (started_)
    return;
  const Result result(PQgetResult(connection_.get()));
  if (PQresultStatus(result.get()) != PGRES_TUPLES_OK)
    throw Failure(connection_.error());
  range_.first_lsn = parse_lsn(result.text(0, 0));
  while (PGresult* const rest = PQgetResult(connection_.get()))
    PQclear(rest);
  started_ = true;
}

void Online_Backup::stop(std::string& label, Log_Range& range, std::uint64_t& scn)
{
  // Waiting for the archiver would cost seconds; the segments come from the server's own directory.
  const Result result = connection_.query("select lsn, labelfile from pg_catalog.pg_backup_stop(false)");
  range_.end_lsn = parse_lsn(result.text(0, 0));
  label = result.text(0, 1);
  range = range_;
  scn = std::stoull(connection_.value("select pg_catalog.txid_current()"));
}

Properties head_properties(const Instance_Files& files, const std::string& mode, const std::string& id)
{
  return {{"format", "1"},   {"instance", files.name},
          {"level", "full"}, {"mode", mode},
          {"backup_id", id}, {"version", trim(read_file(files.data() + "/PG_VERSION"))}};
}

std::uint64_t round_up(std::uint64_t value, std::uint64_t unit)
{
  return (value + unit - 1) / unit * unit;
}

/// The last steps of every backup: the end mark, the reader's last byte, then the chain file.
void conclude(Image_Writer& image, int pipe, const Instance_Files& files, const Backup_Point& point,
              Run_Log& log)
{
  image.properties(Frame_Type::end, {{"lsn", std::to_string(point.lsn)}, {"scn", std::to_string(point.scn)}});
  image.flush();
  wait_until_drained(pipe);
  Chain chain;
  chain.last = chain.last_full = point;
  write_chain(files, chain);
  log.info("backup " + point.id + " of " + files.name + ": " + std::to_string(image.written_bytes()) +
           " bytes, lsn " + format_lsn(point.lsn) + ", scn " + std::to_string(point.scn));
}

void back_up_online(const Instance_Files& files, const Backup_Request& request, Run_Log& log)
{
  if (running_server(files) == 0)
    throw Failure("instance " + files.name + " is not running");
  Online_Backup backup(files, request);
  backup.send_start();
  const Descriptor pipe = open_pipe_for_writing(request.pipe, [&backup] { backup.started(); });
  backup.wait_started();

  const Data_Files data = list_data_files(files.data());
  Backup_Point point;
  point.id = new_backup_id();
  Image_Writer image(pipe.get());
  image.info(info_text(files, data));
  image.properties(Frame_Type::head, head_properties(files, "online", point.id));
  write_roots(image, files, data);
  for (const Data_File& entry : data.entries)
    write_entry(image, data, entry, true);
  write_control_file(image, files.data());
  std::string label;
  Log_Range range;
  backup.stop(label, range, point.scn);
  write_log_range(image, files.data(), range);
  write_small_file(image, "backup_label", label);
  // The server has just begun a new segment, the first one that is not part of this backup.
  point.lsn = round_up(range.end_lsn, range.segment_bytes);
  conclude(image, pipe.get(), files, point, log);
  trim_archive(files, range, point.lsn, log);
}

/// What pg_controldata says about a stopped server.
struct Stopped_State {
  Log_Range range;
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
  state.range.timeline = static_cast<unsigned>(std::stoul(values["Latest checkpoint's TimeLineID"]));
  state.range.segment_bytes = std::stoull(values["Bytes per WAL segment"]);
  state.range.first_lsn = parse_lsn(values["Latest checkpoint location"]);
  state.range.end_lsn = state.range.first_lsn + 1;
  const std::string next = values["Latest checkpoint's NextXID"]; // epoch:number
  const auto colon = next.find(':');
  state.next_transaction = (std::stoull(next) << 32) + std::stoull(next.substr(colon + 1));
  return state;
}

void back_up_offline(const Instance_Files& files, const Backup_Request& request, Run_Log& log)
{
  if (running_server(files) != 0)
    throw Failure("the database is in NOARCHIVELOG mode and must be shut down for a backup");
  // Keeps the server down for the time of the backup.
  const File_Lock lock(files.lock(), connect_timeout_seconds * 1000);
  if (!lock.held())
    throw Failure("instance " + files.name + " is in use by a server or a restore");
  const Stopped_State state = read_stopped_state(files);
  const Descriptor pipe = open_pipe_for_writing(request.pipe, [] {});

  const Data_Files data = list_data_files(files.data());
  Backup_Point point;
  point.id = new_backup_id();
  point.lsn = state.range.first_lsn;
  point.scn = std::max(state.next_transaction, read_chain(files).last.scn + 1);
  Image_Writer image(pipe.get());
  image.info(info_text(files, data));
  image.properties(Frame_Type::head, head_properties(files, "offline", point.id));
  write_roots(image, files, data);
  for (const Data_File& entry : data.entries)
    write_entry(image, data, entry, false);
  write_log_range(image, files.data(), state.range);
  write_control_file(image, files.data());
  conclude(image, pipe.get(), files, point, log);
}

} // namespace

void run_backup(const Instance_Files& files, const Backup_Request& request, Run_Log& log)
{
  files.require_existing();
  if (request.level != "full")
    throw Failure("backup level " + request.level + " is not available in this installation");
  if (is_regular_file(files.incomplete_mark()))
    throw Failure("the data of " + files.name + " are not usable");
  require_pipe(request.pipe, true);
  const File_Lock alone(files.directory() + "/backup.lock", 0);
  if (!alone.held())
    throw Failure("another backup of " + files.name + " is running");
  log.info("backup of " + files.name + ", level " + request.level);
  if (read_conf(files).archive_log)
    back_up_online(files, request, log);
  else
    back_up_offline(files, request, log);
}

} // namespace oscar_lab

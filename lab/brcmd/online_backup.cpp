#include "lab/brcmd/backup_parts.h"
#include "lab/brcmd/pipe.h"
#include "lab/common/database.h"
#include "lab/common/server_control.h"
#include "lab/common/text.h"

#include <unistd.h>

namespace oscar_lab
{

namespace
{

constexpr int connect_timeout_seconds = 2;
constexpr int flush_timeout_msec = 60 * 1000;
/// Settings that no log tells of.
const char* const settings_files[] = {"postgresql.conf", "postgresql.auto.conf", "pg_hba.conf",
                                      "pg_ident.conf"};

Connection log_in(const Instance_Files& files, const Backup_Request& request)
{
  Login login = user_login(files, "", request.port);
  login.user = request.user;
  login.password = request.password;
  login.timeout_seconds = connect_timeout_seconds;
  return Connection(login);
}

/// Logged in as somebody who may back this instance up.
Connection open_session(const Instance_Files& files, const Backup_Request& request)
{
  if (running_server(files) == 0)
    throw Failure("instance " + files.name + " is not running");
  Connection connection = log_in(files, request);
  require_instance(connection, files.name);
  if (connection.value("select pg_catalog.current_setting('is_superuser')") != "on")
    throw Failure("permission denied to back the database up");
  return connection;
}

Backup_Set new_set(Connection& connection, const std::string& level)
{
  Backup_Set set;
  set.level = level;
  set.notes.mode = "online";
  set.notes.system = connection.value("select system_identifier from pg_catalog.pg_control_system()");
  set.log_shape.segment_bytes = std::stoull(
      connection.value("select setting from pg_catalog.pg_settings where name = 'wal_segment_size'"));
  set.log_shape.timeline = static_cast<unsigned>(
      std::stoul(connection.value("select timeline_id from pg_catalog.pg_control_checkpoint()")));
  return set;
}

/// A backup of a running server: from start() to stop() the server writes its log so that data files read at
/// any moment in between can be repaired from it.
class Online_Backup
{
public:
  explicit Online_Backup(Connection& connection);
  /// Asks the server to start; a checkpoint is part of that, so the answer may take a while.
  void send_start();
  /// Throws when the server refused; true when the backup is started.
  bool started();
  void wait_started();
  /// Ends the backup on the server and gives the log to send along. The record that ends at its end is
  /// followed by one more, which switches the segment.
  Log_Range stop(std::string& label);

private:
  Connection& connection_;
  Log_Range range_;
  bool started_ = false;
};

Online_Backup::Online_Backup(Connection& connection) : connection_(connection)
{
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

Log_Range Online_Backup::stop(std::string& label)
{
  // Waiting for the archiver would cost seconds; the segments come from the server's own directory.
  const Result result = connection_.query("select lsn, labelfile from pg_catalog.pg_backup_stop(false)");
  range_.end_lsn = parse_lsn(result.text(0, 0));
  label = result.text(0, 1);
  return range_;
}

/// A transaction of its own with a record in the log: when it has committed, everything before it is on disk.
/// Gives its number.
std::uint64_t leave_mark(Connection& connection)
{
  connection.query("set synchronous_commit = local");
  const Result result = connection.query(
      "select pg_catalog.txid_current(), pg_catalog.pg_logical_emit_message(true, 'brcmd', '')");
  return std::stoull(result.text(0, 0));
}

/// The end of the log so far, between two records and on disk.
std::uint64_t end_of_log(Connection& connection, std::uint64_t& scn)
{
  // The first mark makes the range hold a record at all, the second one brings its end to the disk.
  leave_mark(connection);
  const std::uint64_t lsn = parse_lsn(connection.value("select pg_catalog.pg_current_wal_insert_lsn()"));
  scn = leave_mark(connection);
  const auto flushed = [&connection, lsn] {
    return parse_lsn(connection.value("select pg_catalog.pg_current_wal_flush_lsn()")) >= lsn;
  };
  if (!wait_until(flushed, flush_timeout_msec))
    throw Failure("the server does not bring its log to the disk");
  return lsn;
}

void note_settings(const Data_Files& data, Set_Notes& notes)
{
  for (const Data_File& entry : data.entries)
    for (const char* const name : settings_files)
      if (entry.root == 0 && entry.path == name)
        notes.files[note_key_of(data, entry)] = entry.note;
}

std::uint64_t round_up(std::uint64_t value, std::uint64_t unit)
{
  return (value + unit - 1) / unit * unit;
}

void back_up_everything(const Instance_Files& files, const Backup_Request& request, Connection& connection,
                        Backup_Set& set, Run_Log& log)
{
  Online_Backup backup(connection);
  backup.send_start();
  const Descriptor pipe = open_pipe_for_writing(request.pipe, [&backup] { backup.started(); });
  backup.wait_started();

  const Data_Files data = list_data_files(files.data());
  note_settings(data, set.notes);
  set.point.id = new_backup_id();
  Image_Writer image(pipe.get());
  write_head(image, files, set, info_text(files, set, data.tablespaces, data.root_bytes));
  write_roots(image, files, data);
  for (const Data_File& entry : data.entries)
    write_entry(image, data, entry, true);
  write_control_file(image, files.data());
  std::string label;
  const Log_Range range = backup.stop(label);
  set.point.scn = leave_mark(connection);
  write_log_files(image, files.data(), set.log_shape, range);
  write_small_file(image, "backup_label", label);
  // The server has just begun a new segment, the first one that is not part of this backup.
  set.point.lsn = round_up(range.end_lsn, set.log_shape.segment_bytes);
  conclude(image, pipe.get(), files, set, range, log);
  trim_archive(files, set.log_shape, set.point.lsn, log);
}

/// The log since the backup that is continued, to the byte, and settings files that changed.
void back_up_log(const Instance_Files& files, const Backup_Request& request, Connection& connection,
                 Backup_Set& set, Run_Log& log)
{
  find_base(files, set);
  const Log_Reader reader(files, set.log_shape);
  Log_Range range;
  range.first_lsn = set.base.lsn;
  range.end_lsn = end_of_log(connection, set.point.scn);
  reader.require(range);
  const Descriptor pipe = open_pipe_for_writing(request.pipe, [] {});

  // The reader may have taken its time.
  range.end_lsn = end_of_log(connection, set.point.scn);
  const Data_Files data = list_top_files(files.data());
  note_settings(data, set.notes);
  set.point.id = new_backup_id();
  set.point.lsn = range.end_lsn;
  Image_Writer image(pipe.get());
  write_head(image, files, set, info_text(files, set, {}, {range.end_lsn - range.first_lsn}));
  for (const Data_File& entry : data.entries) {
    const std::string key = note_key_of(data, entry);
    const auto before = set.base.files.find(key);
    if (set.notes.files.count(key) != 0 &&
        (before == set.base.files.end() || !(before->second == entry.note)))
      write_entry(image, data, entry, true);
  }
  write_log_bytes(image, reader, set.log_shape, range);
  conclude(image, pipe.get(), files, set, range, log);
}

} // namespace

void back_up_online(const Instance_Files& files, const Backup_Request& request, Run_Log& log)
{
  Connection connection = open_session(files, request);
  Backup_Set set = new_set(connection, request.level);
  if (set.is_full())
    back_up_everything(files, request, connection, set, log);
  else
    back_up_log(files, request, connection, set, log);
}

} // namespace oscar_lab

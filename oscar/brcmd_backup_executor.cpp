#include "oscar/brcmd_backup_executor.h"

#include "base/clock.h"
#include "base/descriptor.h"
#include "base/ignore_result.h"
#include "base/scope_guard.h"
#include "base/snprintf_t.h"
#include "base/string_sprintf.h"
#include "catalog/catalog_operator.h"
#include "jobs/job_mutex.h"
#include "oscar/brcmd_common.h"
#include "oscar/brcmd_set_record.h"
#include "oscar/brcmd_storage.h"
#include "oscar/brcmd_tool_run.h"
#include "oscar/cluster_gate.h"
#include "oscar/oscar_job_creator.h"
#include "oscar/stream_storage.h"
#include "oscar/utils.h"

#include <ace/Log_Msg.h>

namespace oscar
{
namespace
{
constexpr unsigned short DEFAULT_PORT = 2003;
constexpr int LOG_MODE_ATTEMPTS = 5;
// A brcmd that cannot work at all has ended after this time.
constexpr int64_t BRCMD_START_MSEC = 3000;
} // namespace

/// What one run makes up on its way.
struct Oscar_Brcmd_Backup_Executor::Run {
  explicit Run(time_t start) : start_time(start) {}
  ~Run() { kestrel::wipe(command); }

  const time_t start_time;
  const std::string fifo = fifo_path(start_time);
  Pool_Info pool;
  std::string storage_file;
  secure_string command; // holds the password
  Values catalog;
};

Oscar_Brcmd_Backup_Executor::Oscar_Brcmd_Backup_Executor(Job& job)
    : Job_Executor_T(job), _port(DEFAULT_PORT), _job_type(def_.subtype())
{
}

Oscar_Brcmd_Backup_Executor::~Oscar_Brcmd_Backup_Executor()
{
  kestrel::wipe(_password);
}

bool Oscar_Brcmd_Backup_Executor::is_canceled() const
{
  return job_is_canceled(*act_);
}

bool Oscar_Brcmd_Backup_Executor::is_active(const Values*)
{
  kestrel::ignore_result(_collector.collect(src_->entries()),
                         "it has logged the entry; those before it still count");
  if (_collector.sources().empty()) {
    raise_physical_alert(job_, 1);
    ACE_ERROR((LM_ERROR, "Source entry is empty.\n"));
    return false;
  }
  return cluster_lets_backup_run(def_, _collector.sources().back().servername, true);
}

bool Oscar_Brcmd_Backup_Executor::execute_i(const Values*)
{
  const kestrel::Source_Lock one_job_a_source(src_->id());
  if (!one_job_a_source.held())
    return false;

  Run run(act_->start_time);
  kestrel::File_Lock one_job_an_instance;
  if (!find_instance() || !lock_instance(job_, _instance, one_job_an_instance) || !choose_level(run.catalog))
    return false;
  look_up_port();
  Stream_Fifo fifo(run.fifo);
  if (!create_fifo(job_, fifo) || !find_pool(job_, tgt_.id(), run.pool))
    return false;
  build_names(run);
  bool archivelog = false;
  if (!read_archive_mode(archivelog))
    return false;
  if (archivelog)
    return back_up(run, fifo);

  // Without archive logging brcmd takes an offline backup.
  const kestrel::Scope_Guard restart([this] { restart_instance(_oscar_home, _instance); });
  kestrel::ignore_result(stop_instance(), "brcmd decides whether it can work");
  return back_up(run, fifo);
}

bool Oscar_Brcmd_Backup_Executor::find_instance()
{
  _instance = _collector.sources().empty() ? std::string() : _collector.sources().back().servername;
  Instance_Access access;
  if (!find_instance_access(job_, _instance, Unknown_Instance::SILENT, access))
    return false;
  _oscar_home = access.oscar_home;
  _username = access.username;
  _password = access.password;
  return true;
}

bool Oscar_Brcmd_Backup_Executor::choose_level(Values& catalog)
{
  if (_job_type != JOB_DEFINITION_SUBTYPE_FULL) {
    Last_Backup_Info info;
    if (get_last_backup_info(info) && check_full_backup_set_state(info)) {
      catalog["last_full_backup_id"] = info.last_full_backup_id;
      catalog["last_full_backup_lsn"] = info.last_full_backup_lsn;
      catalog["last_full_backup_scn"] = info.last_full_backup_scn;
      catalog["last_backup_id"] = info.last_backup_id;
      catalog["last_backup_lsn"] = info.last_backup_lsn;
      catalog["last_backup_scn"] = info.last_backup_scn;
    } else {
      _job_type = JOB_DEFINITION_SUBTYPE_FULL;
      ACE_DEBUG((LM_INFO, "Lack of backup info, run full backup instead.\n"));
    }
  }
  if (type_to_cmd_name(_job_type))
    return true;
  ACE_ERROR((LM_ERROR,
             "(%P|%t) Oscar_Brcmd_Backup_Executor::choose_level: brcmd has no backup level for subtype %d of "
             "job %s; "
             "use full, incremental or differential\n",
             int(_job_type), def_.id().c_str()));
  return false;
}

void Oscar_Brcmd_Backup_Executor::look_up_port()
{
  // A failed look-up leaves any value behind, so its result is taken only on success.
  unsigned short port = 0;
  if (get_instance_port(_oscar_home.c_str(), _instance.c_str(), port))
    _port = port;
}

Compression_Method Oscar_Brcmd_Backup_Executor::compression_method() const
{
  return opts_ ? opts_->compression() : COMPRESSION_NONE;
}

void Oscar_Brcmd_Backup_Executor::build_names(Run& run)
{
  const char* const level = type_to_cmd_name(_job_type);
  const std::string time = name_time_text(run.start_time);
  std::string backup_name;
  string_sprintf(backup_name, "%s_%s_%s", _instance.c_str(), level, time.c_str());
  std::string log_name;
  string_sprintf(log_name, "backup_%s.log", backup_name.c_str());
  string_sprintf(run.storage_file, "%s%s", backup_name.c_str(),
                 compression_value_to_suffix(compression_method()));

  const std::string brcmd = _oscar_home + "/bin/brcmd";
  snprintf_t<4096> command("%s -O backup -d %s -u %s -p %s -P %hu -t %s -k pipe -f %s -e %s", brcmd.c_str(),
                           _instance.c_str(), _username.c_str(), _password.c_str(), _port, level,
                           run.fifo.c_str(), brcmd_log_path(log_name).c_str());
  run.command = command.c_str();
  ::explicit_bzero(&command, sizeof command);
}

bool Oscar_Brcmd_Backup_Executor::read_archive_mode(bool& archivelog)
{
  for (int attempt = 1; attempt <= LOG_MODE_ATTEMPTS; ++attempt) {
    Oscar_Query_Handler query(_oscar_home, _instance, _username, _password.c_str(), _port, "localhost");
    const kestrel::Tool_Watch watch(job_, query.process_handler(), "isql");
    const int64_t begin_msec = kestrel::clock().monotonic_msec();
    if (get_log_mode(query, archivelog))
      return true;
    // Canceled, and isql was silent until the watch ended it: it would be so again.
    if (is_canceled() && kestrel::clock().monotonic_msec() - begin_msec >= kestrel::Tool_Watch::GRACE_MSEC)
      break;
    kestrel::clock().sleep_msec(attempt * 1000);
  }
  raise_physical_alert(job_, 24);
  ACE_ERROR((LM_ERROR, "Failed to get log archive mode of oscar instance '%s'.\n", _instance.c_str()));
  return false;
}

bool Oscar_Brcmd_Backup_Executor::back_up(Run& run, Stream_Fifo& fifo)
{
  Brcmd_Tool_Run tool(job_, fifo, Stream_Fifo::Side::READER, true,
                      [this, &run](Execute_Cmd_Line_Handler& handler) {
                        Oscar_Cmd_Login login;
                        login.username = _username.c_str();
                        login.password = _password.c_str();
                        return execute_oscar_brcmd_spawn(_oscar_home.c_str(), run.command.c_str(), login,
                                                         job_.log_msg_callback(), handler);
                      });
  if (!tool.start())
    return false;
  kestrel::clock().sleep_msec(BRCMD_START_MSEC);
  if (!tool.succeeded() || tool.ended()) {
    ACE_ERROR((LM_ERROR,
               "(%P|%t) Oscar_Brcmd_Backup_Executor::back_up: brcmd ended before it gave any data; nothing "
               "was backed up\n"));
    return false;
  }
  const kestrel::Scope_Guard terminate([&tool] {
    tool.stop();
    ACE_DEBUG((LM_INFO, "Process brcmd terminate.\n"));
  });

  Client_IO_Ex storage;
  Pumped_Stream pumped;
  // The pump does the same when it sees the cancel; a tool that had to be ended for it ends the stream first.
  const kestrel::Scope_Guard discard([this, &storage] {
    if (is_canceled())
      kestrel::ignore_result(storage.discard(), "fails only when no unfinished file is open");
  });
  if (!open_storage(run, storage) || !stream(run, fifo, tool, storage, pumped))
    return false;
  if (!tool.join()) {
    ACE_ERROR((LM_ERROR,
               "(%P|%t) Oscar_Brcmd_Backup_Executor::back_up: brcmd reported a failure after %Q bytes; the "
               "backup is not recorded\n",
               ACE_UINT64(pumped.bytes)));
    return false;
  }
  return close_storage(run, storage, pumped) && record(run, storage, pumped);
}

bool Oscar_Brcmd_Backup_Executor::open_storage(const Run& run, Client_IO_Ex& storage)
{
  Client_IO_Base::Options options = storage_options(Storage_Side::BACKUP, def_, compression_method());
  if (opts_)
    options.compression_level = opts_->compression_level();
  return open_stored_file(job_, Storage_Side::BACKUP, run.pool, src_->id(), run.storage_file, options,
                          storage);
}

bool Oscar_Brcmd_Backup_Executor::stream(const Run& run, Stream_Fifo& fifo, Brcmd_Tool_Run& tool,
                                         Client_IO_Ex& storage, Pumped_Stream& pumped)
{
  const kestrel::Auto_Fd reader(open_fifo(job_, fifo, Stream_Fifo::Side::READER));
  if (reader.get() < 0)
    return false;
  Job_Pump_Host host(job_, *act_, evt_handler_, tool);
  Stored_File_Sink sink(storage, run.storage_file);
  Stream_Backup_Pump pump(host, sink,
                          [this](const char* data, unsigned len) { return get_backup_set_size(data, len); });
  return pump.pump(reader.get(), fifo.path(), pumped);
}

uint64_t Oscar_Brcmd_Backup_Executor::get_backup_set_size(const char* data, unsigned len)
{
  return stream_backup_set_size(data, len);
}

bool Oscar_Brcmd_Backup_Executor::close_storage(const Run& run, Client_IO_Ex& storage,
                                                const Pumped_Stream& pumped)
{
  if (!storage.close()) {
    raise_physical_alert(job_, 17);
    ACE_ERROR((LM_ERROR, "Failed to write to storage: %s.\n", storage.error()));
    return false;
  }
  if (pumped.is_stored_as(storage.original_size(), storage.original_checksum()))
    return true;
  raise_physical_alert(job_, 17);
  ACE_ERROR((LM_ERROR,
             "(%P|%t) Oscar_Brcmd_Backup_Executor::close_storage: brcmd gave %Q bytes with checksum %s, but "
             "file %s holds "
             "%Q bytes with checksum %s; the backup is not recorded\n",
             ACE_UINT64(pumped.bytes), pumped.checksum.c_str(), run.storage_file.c_str(),
             ACE_UINT64(storage.original_size()), storage.original_checksum().c_str()));
  return false;
}

bool Oscar_Brcmd_Backup_Executor::record(Run& run, const Client_IO_Ex& storage, const Pumped_Stream& pumped)
{
  act_->original_size = storage.original_size();
  act_->processed_size = storage.original_size();
  act_->storage_size = storage.storage_size();
  put_job_values(run, storage, run.catalog);
  if (!put_chain_values(run.catalog))
    return false;

  Oscar_Brcmd_Backup_Set set;
  if (!build_oscar_brcmd_backup_set(run.catalog, set))
    return false;
  set.set_compression(compression_value_to_name(compression_method()));
  set.set_pump_size(pumped.bytes);
  set.set_pump_checksum(pumped.checksum);
  set.set_original_checksum(storage.original_checksum());
  set.set_storage_checksum(storage.storage_checksum());
  if (!pumped.can_be_restored()) {
    // It must not be taken for a backup that a restore can rely on, nor may others build on it.
    std::string reason;
    string_sprintf(reason, "its info block has %u bytes, and a restore takes at most %u", pumped.info_bytes,
                   STREAM_BLOCK_BYTES);
    set.set_unusable_reason(reason);
  }
  return Catalog_Operator(-1, -1).commit(set, true);
}

void Oscar_Brcmd_Backup_Executor::put_job_values(const Run& run, const Client_IO_Ex& storage,
                                                 Values& catalog) const
{
  catalog["uid"] = def_.uid();
  catalog["definition_uuid"] = def_.id();
  catalog["name"] = def_.name();
  catalog["agent"] = def_.agent();
  catalog["host_uuid"] = def_.host_id();
  catalog["resource_uuid"] = src_->id();
  catalog["pool_uuid"] = tgt_.id();
  catalog["uri"] = src_->id();
  catalog["start_time"] = catalog_time_text(run.start_time);
  catalog["end_time"] = catalog_time_text(kestrel::clock().now());
  catalog["type"] = job_def_subtype_to_string(_job_type);
  catalog["backup_file"] = run.storage_file;
  catalog["backup_set_size"] = storage.original_size();
  catalog["backup_set_storage_size"] = storage.storage_size();
}

bool Oscar_Brcmd_Backup_Executor::build_oscar_brcmd_backup_set(const Values& map, Oscar_Brcmd_Backup_Set& set)
{
  return fill_brcmd_backup_set(map, src_->id(), act_->start_time, kestrel::clock().now(), set);
}
} // namespace oscar

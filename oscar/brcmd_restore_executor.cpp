#include "oscar/brcmd_restore_executor.h"

#include "base/clock.h"
#include "base/descriptor.h"
#include "base/ignore_result.h"
#include "base/scope_guard.h"
#include "base/snprintf_t.h"
#include "base/string_sprintf.h"
#include "catalog/catalog_operator.h"
#include "jobs/job_mutex.h"
#include "oscar/brcmd_common.h"
#include "oscar/brcmd_storage.h"
#include "oscar/brcmd_tool_run.h"
#include "oscar/cluster_gate.h"
#include "oscar/stream_storage.h"
#include "oscar/utils.h"

#include <ace/ACE.h>
#include <ace/Log_Msg.h>

#include <csignal>
#include <set>

namespace oscar
{
namespace
{
constexpr unsigned short DEFAULT_PORT = 2003;
constexpr int STOP_POLLS = 10;
} // namespace

Oscar_Brcmd_Restore_Executor::Oscar_Brcmd_Restore_Executor(Job& job)
    : Job_Executor_T(job), _port(DEFAULT_PORT), _total_bytes(0)
{
}

Oscar_Brcmd_Restore_Executor::~Oscar_Brcmd_Restore_Executor()
{
  kestrel::wipe(_password);
}

bool Oscar_Brcmd_Restore_Executor::is_canceled() const
{
  return job_is_canceled(*act_);
}

bool Oscar_Brcmd_Restore_Executor::is_active(const Values*)
{
  return cluster_lets_restore_run(def_, target_instance());
}

bool Oscar_Brcmd_Restore_Executor::execute_i(const Values*)
{
  const kestrel::Source_Lock one_job_a_source(src_->id());
  if (!one_job_a_source.held())
    return false;

  kestrel::File_Lock one_job_an_instance;
  if (!choose_backup() || !find_instance() || !lock_instance(job_, _instance, one_job_an_instance))
    return false;
  Stream_Fifo fifo(fifo_path(act_->start_time));
  if (!create_fifo(job_, fifo))
    return false;
  const Client_IO_Base::Options options = storage_options(Storage_Side::RESTORE, def_, COMPRESSION_ZLIB);
  if (!read_sequence() || !pools_are_there() || !stop_instance())
    return false;
  const kestrel::Scope_Guard restart([this] { restart_instance(_oscar_home, _instance); });
  return restore_sets(options, fifo);
}

bool Oscar_Brcmd_Restore_Executor::choose_backup()
{
  if (!def_.periodic() || get_latest_info_from_catalog())
    return true;
  raise_physical_alert(job_, 2);
  ACE_ERROR((LM_ERROR, "Failed to get latest info from catalog\n"));
  return false;
}

bool Oscar_Brcmd_Restore_Executor::get_latest_info_from_catalog()
{
  using namespace json_spirit;
  Values query;
  query["resource_uuid"] = src_->id();
  query["sort"] = "backup_start_time";
  query["order"] = "desc";
  Value result;
  if (!Catalog_Operator(-1, static_cast<int>(def_.max_seconds_retry()))
           .get_view("oscar_brcmd", "catalogs", query, result) ||
      result.type() != obj_type)
    return false;
  const Value& rows = find_value(result.get_obj(), "rows");
  if (rows.type() != array_type || rows.get_array().empty() || rows.get_array().front().type() != obj_type)
    return false;
  try {
    _latest_backup_id = find_value(rows.get_array().front().get_obj(), "backup_id").get_str();
    return true;
  } catch (const std::exception& error) {
    ACE_ERROR((LM_ERROR, "Invalid catalog data: %s\n", error.what()));
    return false;
  }
}

const std::string& Oscar_Brcmd_Restore_Executor::backup_id() const
{
  return def_.periodic() ? _latest_backup_id : src_->catalog_id();
}

std::string Oscar_Brcmd_Restore_Executor::target_instance() const
{
  if (!src_->restore_as().database.empty())
    return src_->restore_as().database;
  return src_->name().empty() ? src_->original().database : src_->name();
}

bool Oscar_Brcmd_Restore_Executor::find_instance()
{
  _instance = target_instance();
  if (_instance.empty()) {
    raise_physical_alert(job_, 20);
    ACE_ERROR((LM_ERROR, "Failed to invoke execute_i, can't find instance.\n"));
    return false;
  }
  Instance_Access access;
  if (!find_instance_access(job_, _instance, Unknown_Instance::ALERT, access))
    return false;
  _oscar_home = access.oscar_home;
  _username = access.username;
  _password = access.password;
  return true;
}

bool Oscar_Brcmd_Restore_Executor::read_sequence()
{
  Values query;
  query["backup_id"] = backup_id();
  query["order"] = "desc";
  json_spirit::Value result;
  if (!Catalog_Operator(-1, static_cast<int>(def_.max_seconds_retry()))
           .get_view("oscar_brcmd", "catalog_sequences", query, result) ||
      result.type() != json_spirit::obj_type)
    return false;
  try {
    _sets = read_restore_sequence(result, src_->pool_uuid(), _total_bytes);
  } catch (const std::exception& error) {
    ACE_ERROR((LM_ERROR, "Invalid catalog data, exception: %s\n", error.what()));
    return false;
  }
  if (_total_bytes == 0) {
    raise_physical_alert(job_, 18);
    ACE_ERROR((LM_ERROR, "Invalid backup set size\n"));
    return false;
  }
  return true;
}

/// A pool that is not known, or only cannot be asked, is met when its first file is needed.
bool Oscar_Brcmd_Restore_Executor::pools_are_there()
{
  std::set<std::string> seen;
  for (const Restore_Set& set : _sets) {
    Pool_Info pool;
    std::string unknown;
    if (seen.insert(set.pool_uuid).second && kestrel::look_up_pool(set.pool_uuid, pool, unknown) &&
        !pool_is_there(job_, pool))
      return false;
  }
  return true;
}

bool Oscar_Brcmd_Restore_Executor::stop_instance()
{
  int pid = 0;
  if (!instance_running(_oscar_home.c_str(), _instance.c_str(), pid))
    return true;
  if (::kill(pid, SIGTERM) != 0 && errno != ESRCH) {
    raise_physical_alert(job_, 19);
    ACE_ERROR((LM_ERROR, "Failed to kill pid %d with SIGTERM, errno=%d, %m\n", pid, errno));
    return false;
  }
  if (wait_process_gone(pid, STOP_POLLS))
    return true;
  if (ACE::terminate_process(pid) != 0 && errno != ESRCH) {
    raise_physical_alert(job_, 19);
    ACE_ERROR((LM_ERROR, "Failed to kill pid %d with SIGKILL, errno=%d, %m\n", pid, errno));
    return false;
  }
  return wait_process_gone(pid, STOP_POLLS);
}

bool Oscar_Brcmd_Restore_Executor::restore_sets(const Client_IO_Base::Options& options, Stream_Fifo& fifo)
{
  // In the order of the catalog: the full backup first.
  Stream_Progress progress(_total_bytes);
  ACE_UINT64 applied = 0;
  for (const Restore_Set& set : _sets) {
    if (!restore_set(set, options, fifo, progress))
      return false;
    // Whoever finds a restore that was killed learns from this how far the instance is.
    ACE_DEBUG((LM_INFO,
               "(%P|%t) Oscar_Brcmd_Restore_Executor::restore_sets: file %s is restored (%Q of %Q)\n",
               set.backup_file.c_str(), ++applied, static_cast<ACE_UINT64>(_sets.size())));
  }
  return true;
}

bool Oscar_Brcmd_Restore_Executor::restore_set(const Restore_Set& set, const Client_IO_Base::Options& options,
                                               Stream_Fifo& fifo, Stream_Progress& progress)
{
  Pool_Info pool;
  Client_IO_Ex storage;
  if (!find_pool(job_, set.pool_uuid, pool) ||
      !open_stored_file(job_, Storage_Side::RESTORE, pool, set.uri, set.backup_file, options, storage))
    return false;
  const std::string command = brcmd_command(fifo);
  Brcmd_Tool_Run tool(job_, fifo, Stream_Fifo::Side::WRITER, false,
                      [this, &command](Execute_Cmd_Line_Handler& handler) {
                        return execute_oscar_cmd(_oscar_home.c_str(), command.c_str(), Oscar_Cmd_Login(),
                                                 true, job_.log_msg_callback(), handler);
                      });
  if (!tool.start() || !feed_tool(set, storage, fifo, tool, progress))
    return false;
  if (tool.join())
    return true;
  ACE_ERROR((LM_ERROR,
             "(%P|%t) Oscar_Brcmd_Restore_Executor::restore_set: brcmd read all of file %s but reported a "
             "failure; the instance is not restored\n",
             set.backup_file.c_str()));
  return false;
}

std::string Oscar_Brcmd_Restore_Executor::brcmd_command(const Stream_Fifo& fifo) const
{
  const std::string time = name_time_text(kestrel::clock().now());
  std::string log_name;
  string_sprintf(log_name, "restore_%s.log", time.c_str());
  const std::string brcmd = _oscar_home + "/bin/brcmd";
  return snprintf_t<4096>("%s -O restore -d %s -t backup_point_last -k pipe -f %s -e %s", brcmd.c_str(),
                          _instance.c_str(), fifo.path().c_str(), brcmd_log_path(log_name).c_str())
      .c_str();
}

bool Oscar_Brcmd_Restore_Executor::feed_tool(const Restore_Set& set, Client_IO_Ex& storage, Stream_Fifo& fifo,
                                             Brcmd_Tool_Run& tool, Stream_Progress& progress)
{
  const kestrel::Auto_Fd writer(open_fifo(job_, fifo, Stream_Fifo::Side::WRITER));
  if (writer.get() < 0)
    return false;
  Job_Pump_Host host(job_, *act_, evt_handler_, tool);
  Stored_File_Source source(storage, set.backup_file);
  Stream_Restore_Pump::Expected expected;
  expected.bytes = set.backup_set_size;
  expected.checksum = set.checksum;
  if (Stream_Restore_Pump(host, source, progress).pump(writer.get(), expected))
    return true;
  // Before the FIFO is closed: brcmd would take the end of the stream for the end of the backup.
  tool.stop();
  return false;
}
} // namespace oscar

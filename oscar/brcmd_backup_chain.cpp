#include "oscar/brcmd_backup_executor.h"

#include "base/snprintf_t.h"
#include "catalog/catalog_operator.h"
#include "jobs/tool_watch.h"
#include "oscar/brcmd_common.h"
#include "oscar/oscar_cmd_handler.h"
#include "oscar/utils.h"

#include <ace/Log_Msg.h>

// The part of a backup that deals with the chain: where it stands before and after, and whether it can be
// continued.
namespace oscar
{
namespace
{
constexpr int STOP_POLLS = 60;

/// Why the newest matching set cannot carry on a chain in this pool; null when it can.
const char* obstacle_to_chain(const json_spirit::Value& result, const std::string& pool_id)
{
  using namespace json_spirit;
  if (result.type() != obj_type)
    return "the catalog's answer has the wrong shape";
  const Value& rows = find_value(result.get_obj(), "rows");
  if (rows.type() != array_type || rows.get_array().empty() || rows.get_array().front().type() != obj_type)
    return "it is not in the catalog";
  const Object& newest = rows.get_array().front().get_obj();
  const Value& state = find_value(newest, "state");
  const Value& pool_uuid = find_value(newest, "pool_uuid");
  if (state.type() != array_type || state.get_array().empty())
    return "its stored file cannot be used";
  if (pool_uuid.type() != str_type || pool_uuid.get_str() != pool_id)
    return "it lies in another pool";
  return nullptr;
}
} // namespace

bool Oscar_Brcmd_Backup_Executor::get_last_backup_info(Last_Backup_Info& info)
{
  return read_chain_state(_oscar_home + "/agent/lastlsn.dat", _instance, info);
}

bool Oscar_Brcmd_Backup_Executor::check_full_backup_set_state(const Last_Backup_Info& info)
{
  Values query;
  query["resource_uuid"] = src_->id();
  query["backup_id"] = info.last_full_backup_id;
  query["backup_lsn"] = info.last_full_backup_lsn;
  query["backup_scn"] = info.last_full_backup_scn;
  query["sort"] = "start_time";
  query["order"] = "desc";
  json_spirit::Value result;
  if (!Catalog_Operator(-1, static_cast<int>(def_.max_seconds_retry()))
           .get_view("oscar_brcmd", "catalogs", query, result))
    return false;
  const char* const obstacle = obstacle_to_chain(result, tgt_.id());
  if (!obstacle)
    return true;
  ACE_DEBUG((LM_INFO,
             "(%P|%t) Oscar_Brcmd_Backup_Executor::check_full_backup_set_state: full backup %s cannot be "
             "continued: %s\n",
             info.last_full_backup_id.c_str(), obstacle));
  return false;
}

bool Oscar_Brcmd_Backup_Executor::put_chain_values(Values& catalog)
{
  Last_Backup_Info info;
  if (!get_last_backup_info(info)) {
    raise_physical_alert(job_, 18);
    ACE_ERROR((LM_ERROR, "Failed to get backup info.\n"));
    return false;
  }
  catalog["backup_id"] = info.last_backup_id;
  catalog["uuid"] = info.last_backup_id;
  catalog["backup_lsn"] = info.last_backup_lsn;
  catalog["backup_scn"] = info.last_backup_scn;
  if (_job_type == JOB_DEFINITION_SUBTYPE_FULL) {
    for (const char* const id : {"last_backup_id", "last_full_backup_id"})
      catalog[id] = info.last_backup_id;
    for (const char* const lsn : {"last_backup_lsn", "last_full_backup_lsn"})
      catalog[lsn] = info.last_backup_lsn;
    for (const char* const scn : {"last_backup_scn", "last_full_backup_scn"})
      catalog[scn] = info.last_backup_scn;
  }
  return true;
}

bool Oscar_Brcmd_Backup_Executor::stop_instance()
{
  int pid = 0;
  if (!instance_running(_oscar_home.c_str(), _instance.c_str(), pid))
    return true;

  const std::string isql = _oscar_home + "/bin/isql";
  snprintf_t<4096> command("\"%s\" -U%s/%s -d%s -p%hu -c \"shutdown immediate\"", isql.c_str(),
                           _username.c_str(), _password.c_str(), _instance.c_str(), _port);
  Oscar_Cmd_Login login;
  login.username = _username.c_str();
  login.password = _password.c_str();
  Execute_Cmd_Line_Handler handler(nullptr, true);
  int result;
  {
    const kestrel::Tool_Watch watch(job_, handler, "isql");
    result = execute_oscar_cmd(_oscar_home.c_str(), command.c_str(), login, false, job_.log_msg_callback(),
                               handler);
  }
  ::explicit_bzero(&command, sizeof command);
  if (result < 0) {
    raise_physical_alert(job_, 19);
    ACE_ERROR((LM_ERROR, "Failed to to shutdown instance.\n"));
    return false;
  }
  return wait_process_gone(pid, STOP_POLLS);
}
} // namespace oscar

#include "oscar/logical_job.h"

#include "base/ignore_result.h"
#include "jobs/job_alert.h"
#include "jobs/tool_watch.h"
#include "oscar/utils_progress.h"
#include "storage/pool_mark.h"

#include <ace/Log_Msg.h>

#include <cerrno>

namespace oscar
{
namespace
{
constexpr int ALERT_CATEGORY = 7;
// The tools may be silent for as long as their work takes: a canceled job does not wait for a sign of them.
constexpr int64_t TOOL_GRACE_MSEC = 0;
} // namespace

void raise_logical_alert(Job& job, int code)
{
  const int error = errno;
  kestrel::ignore_result(write_job_alert(job, ALERT_CATEGORY, 0, code, 0, 0, 0, json_spirit::Value(), 1, 0),
                         "the job fails anyway, and the log says why");
  errno = error;
}

bool find_pool(Job& job, const std::string& pool_id, const std::string& device_id, Pool_Info& pool)
{
  if (get_pool_info(pool_id, device_id, pool, false, 0, nullptr, true, nullptr, nullptr, false)) {
    std::string missing;
    if (kestrel::check_pool_mark(pool, missing))
      return true;
    raise_logical_alert(job, ALERT_STEP);
    ACE_ERROR((LM_ERROR, "Failed to connect to storage: %s.\n", missing.c_str()));
    return false;
  }
  raise_logical_alert(job, ALERT_POOL);
  ACE_ERROR((LM_ERROR, "Failed to get pool info.\n"));
  return false;
}

bool read_tablespaces(Job& job, const std::string& oscar_home, const std::string& instance,
                      const std::string& username, const secure_string& password, unsigned short port,
                      std::vector<std::string>& names)
{
  Oscar_Query_Handler query(oscar_home, instance, username, password.c_str(), port, "localhost");
  const kestrel::Tool_Watch watch(job, query.process_handler(), "isql");
  return get_user_tablespaces(query, names);
}

std::string object_text(const std::string& database, const std::string& schema, const std::string& table)
{
  std::string text = database;
  if (!schema.empty())
    text += "/" + schema;
  if (!table.empty())
    text += "/" + table;
  return text;
}

void Job_Tool_Host::begin_object(const Backup_File& object, size_t number, size_t total)
{
  const std::string text = object_text(object.database, object.schema, object.table);
  ACE_DEBUG((LM_INFO, "%C %C (%Q of %Q).\n", verb_, text.c_str(), static_cast<ACE_UINT64>(number),
             static_cast<ACE_UINT64>(total)));
  kestrel::ignore_result(put_item_event(job_.definition(), text, number, total),
                         "a lost event harms nothing");
}

int Job_Tool_Host::run_tool(const char* oscar_home, const char* command, const Oscar_Cmd_Login& login,
                            std::shared_ptr<ACE_Log_Msg_Callback> callback)
{
  if (job_is_canceled(*job_.activity()))
    return -1;
  Execute_Cmd_Line_Handler handler(nullptr, true);
  // Its children would go on with half of the work.
  handler.kill_group_on_failure();
  const kestrel::Tool_Watch watch(job_, handler, "the tool", TOOL_GRACE_MSEC);
  return execute_oscar_cmd(oscar_home, command, login, false, callback, handler);
}
} // namespace oscar

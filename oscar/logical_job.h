#pragma once

#include "jobs/job.h"
#include "oscar/oscar_cmd_handler.h"
#include "oscar/utils_export.h"
#include "storage/pool.h"

#include <string>

namespace oscar
{
/// What the executors of export and import have in common.

/// Raises an alert of the logical jobs. errno stays, so that the message that follows can show it.
void raise_logical_alert(Job& job, int code);

/// Codes of alerts.
enum Logical_Alert : int {
  ALERT_NO_SOURCE = 1,
  ALERT_LATEST_INFO = 2,
  ALERT_ACCOUNT = 3,
  ALERT_OSCAR_HOME = 6,
  ALERT_BACKUP_SERVER = 10,
  ALERT_POOL = 11,
  ALERT_STEP = 18, // every step that has no code of its own
  ALERT_INSTANCE = 20
};

/// Looks a pool up that is there: one of this host carries its mark. False = failed, alert raised and logged.
[[nodiscard]] bool find_pool(Job& job, const std::string& pool_id, const std::string& device_id,
                             Pool_Info& pool);

/// Reads the user tablespaces of an instance; an isql that hangs is ended when the job is canceled. False =
/// failed, logged.
[[nodiscard]] bool read_tablespaces(Job& job, const std::string& oscar_home, const std::string& instance,
                                    const std::string& username, const secure_string& password,
                                    unsigned short port, std::vector<std::string>& names);

/// The object as people name it: instance/database/schema/table, as far as it goes.
std::string object_text(const std::string& database, const std::string& schema, const std::string& table);

/// Runs the tools of one job: tells which object is at hand, and ends the tool when the job is canceled.
/// Threads:   the job's thread; each tool is watched by one more thread while it runs.
/// Ownership: the job is not owned and must outlive the object.
class Job_Tool_Host : public Logical_Job_Host
{
public:
  /// verb begins the line in the log: "Exporting".
  Job_Tool_Host(Job& job, const char* verb) : job_(job), verb_(verb) {}
  void begin_object(const Backup_File& object, size_t number, size_t total) override;
  int run_tool(const char* oscar_home, const char* command, const Oscar_Cmd_Login& login,
               std::shared_ptr<ACE_Log_Msg_Callback> callback) override;

private:
  Job& job_;
  const char* const verb_;
};
} // namespace oscar

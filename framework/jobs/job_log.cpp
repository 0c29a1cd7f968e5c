#include "jobs/job_log.h"

#include "base/clock.h"
#include "base/log.h"
#include "base/path_conf.h"
#include "base/uuid.h"

#include <ace/Log_Msg.h>

#include <atomic>
#include <cstdio>
#include <ctime>
#include <unistd.h>

namespace kestrel
{
namespace
{
/// The definition, the time (local, for people) and, since two runs may begin in one second, process and
/// number.
std::string run_log_path(const std::string& definition_id)
{
  static std::atomic<unsigned> number(0);
  const time_t now = clock().now();
  struct tm local = {};
  ::localtime_r(&now, &local);
  char stamp[32] = "";
  std::strftime(stamp, sizeof stamp, "%Y%m%d%H%M%S", &local);
  const std::string id = is_uuid(definition_id) ? definition_id : name_uuid(definition_id);
  char file[128];
  std::snprintf(file, sizeof file, "%s_%s_%d_%u.log", id.c_str(), stamp, static_cast<int>(::getpid()),
                ++number);
  return Path_Conf("/var/log/kestrel3", "jobs").path(file);
}
} // namespace

void Job_Log::begin_run(const std::string& definition_id)
{
  const std::string path = run_log_path(definition_id);
  std::shared_ptr<Log_File_Callback> file = std::make_shared<Log_File_Callback>();
  std::string error;
  if (!file->open(path, error)) {
    ACE_ERROR((LM_WARNING, "(%P|%t) Job_Log::begin_run: no log of this run: %C\n", error.c_str()));
    file.reset();
  }
  const std::lock_guard<std::mutex> guard(mutex_);
  file_ = std::move(file);
  path_ = path;
}

std::string Job_Log::path() const
{
  const std::lock_guard<std::mutex> guard(mutex_);
  return path_;
}

void Job_Log::log(ACE_Log_Record& record)
{
  std::shared_ptr<Log_File_Callback> file;
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    file = file_;
  }
  if (file) {
    file->log(record);
  }
}
} // namespace kestrel

#include "oscar/brcmd_common.h"

#include <cerrno>
#include <memory>

#include <ace/ACE.h>
#include <ace/Log_Msg.h>

#include "base/clock.h"
#include "base/ignore_result.h"
#include "base/path_conf.h"
#include "base/uuid.h"
#include "instances/instance_manager.h"
#include "jobs/job.h"
#include "jobs/job_alert.h"
#include "jobs/job_event.h"
#include "oscar/brcmd_tool_run.h"
#include "oscar/utils.h"

namespace oscar
{
namespace
{
constexpr int ALERT_CATEGORY = 7;
constexpr int64_t GONE_POLL_MSEC = 1000;
constexpr int64_t LOCK_POLL_MSEC = 200;

struct tm local_time(time_t time)
{
  struct tm parts = {};
  ::localtime_r(&time, &parts);
  return parts;
}
} // namespace

std::string name_time_text(time_t time)
{
  const struct tm parts = local_time(time);
  char text[32];
  return std::string(text, std::strftime(text, sizeof text, "%Y%m%d_%H%M%S", &parts));
}

std::string catalog_time_text(time_t time)
{
  const struct tm parts = local_time(time);
  char text[32];
  return std::string(text, std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &parts));
}

void raise_physical_alert(Job& job, int code)
{
  const int error = errno;
  kestrel::ignore_result(write_job_alert(job, ALERT_CATEGORY, code, 0, json_spirit::Value(), 1),
                         "the job fails anyway, and the log says why");
  errno = error;
}

std::string fifo_path(time_t start_time)
{
  const std::string name = name_time_text(start_time) + "_fifo";
  return Path_Conf("/var/opt/tarnvik/kestrel3/$COMPONENT/oscar").path(name.c_str());
}

int open_fifo(Job& job, Stream_Fifo& fifo, Stream_Fifo::Side side)
{
  const int descriptor = side == Stream_Fifo::Side::READER ? fifo.open_reader() : fifo.open_writer();
  if (descriptor < 0) {
    raise_physical_alert(job, 15);
    ACE_ERROR((LM_ERROR, "Failed to open fifo %s, errno=%d, %m\n", fifo.path().c_str(), errno));
  }
  return descriptor;
}

std::string brcmd_log_path(const std::string& name)
{
  return Path_Conf("/var/log/kestrel3", "brcmd").path(name.c_str());
}

bool create_fifo(Job& job, Stream_Fifo& fifo)
{
  if (fifo.create(0640))
    return true;
  raise_physical_alert(job, 15);
  ACE_ERROR((LM_ERROR, "Failed to create fifo %s, errno=%d, %m\n", fifo.path().c_str(), errno));
  return false;
}

bool find_instance_access(Job& job, const std::string& instance, Unknown_Instance unknown,
                          Instance_Access& access)
{
  Instance_Manager* const manager = Instance_Manager::instance();
  if (!manager) {
    ACE_ERROR((LM_EMERGENCY, "Unexpected error in %N:%l, manager is NULL:\n%?\n"));
    return false;
  }
  if (manager->get_account("oscar", instance, job.definition().uid(), access.username, access.password,
                           nullptr) < 0) {
    raise_physical_alert(job, 3);
    ACE_ERROR((LM_ERROR, "Failed to get account.\n"));
    return false;
  }
  const std::shared_ptr<Instance> found = manager->find("oscar", instance);
  if (!found) {
    if (unknown == Unknown_Instance::ALERT) {
      raise_physical_alert(job, 20);
      ACE_ERROR((LM_ERROR, "Failed to invoke execute_i, can't find instance.\n"));
    }
    return false;
  }
  if (!get_from_instance_options(found, "oscar_home", access.oscar_home)) {
    raise_physical_alert(job, 6);
    ACE_ERROR((LM_ERROR, "Failed to get oscar home.\n"));
    return false;
  }
  return true;
}

bool lock_instance(Job& job, const std::string& instance, kestrel::File_Lock& lock)
{
  const std::string path = Path_Conf("/var/opt/tarnvik/kestrel3/$COMPONENT", "locks")
                               .path(("instance_" + kestrel::name_uuid(instance) + ".lock").c_str());
  bool told = false;
  while (!lock.try_lock(path)) {
    if (errno != EWOULDBLOCK) {
      ACE_ERROR((LM_ERROR, "(%P|%t) lock_instance: cannot lock %C: %m\n", path.c_str()));
      return false;
    }
    if (!told)
      ACE_DEBUG((LM_INFO, "(%P|%t) lock_instance: the job waits for another job on the instance %C\n",
                 instance.c_str()));
    told = true;
    if (job_is_canceled(*job.activity()))
      return false;
    kestrel::clock().sleep_msec(LOCK_POLL_MSEC);
  }
  return true;
}

bool wait_process_gone(int pid, int polls)
{
  for (int poll = 0; poll < polls; ++poll) {
    kestrel::clock().sleep_msec(GONE_POLL_MSEC);
    if (ACE::process_active(pid) == 0)
      return true;
  }
  return false;
}

void restart_instance(const std::string& oscar_home, const std::string& instance)
{
  if (!start_instance(oscar_home.c_str(), instance.c_str()))
    ACE_ERROR((LM_ERROR,
               "(%P|%t) restart_instance: instance %s was stopped for this job and its start command failed; "
               "start it by hand\n",
               instance.c_str()));
}

bool Job_Pump_Host::canceled() const
{
  return job_is_canceled(activity_);
}

void Job_Pump_Host::bytes_moved()
{
  tool_.touch();
}

void Job_Pump_Host::progress(int percent, uint64_t total, uint64_t done)
{
  kestrel::ignore_result(events_.handle_progress(percent, total, done),
                         "a lost progress event harms nothing");
}

std::string Job_Pump_Host::definition_id() const
{
  return job_.definition().id();
}
} // namespace oscar

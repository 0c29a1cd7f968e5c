#include "jobs/job_alert.h"

#include "base/clock.h"
#include "jobs/job.h"
#include "jobs/job_event.h"

#include <exception>

int write_job_alert(Job& job, int category, int code, int, const json_spirit::Value& data, int)
{
  try {
    kestrel::Job_Alert alert;
    alert.category = category;
    alert.code = code;
    alert.time = kestrel::clock().now();
    alert.data = data;
    job.add_alert(std::move(alert));
    std::unique_ptr<Job_Event> event(new kestrel::Job_Alert_Event(job.definition(), category, code));
    return Job_Event_Manager::instance()->putq(std::move(event), nullptr) < 0 ? -1 : 0;
  } catch (const std::exception&) {
    return -1; // no memory for an alert: the log has the reason of the failure
  }
}

int write_job_alert(Job& job, int category, int, int code, int, int, int, const json_spirit::Value& data, int,
                    int)
{
  return write_job_alert(job, category, code, 0, data, 0);
}

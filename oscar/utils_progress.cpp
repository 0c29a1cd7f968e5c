#include "oscar/utils_progress.h"

#include "jobs/job_activity.h"
#include "jobs/job_event.h"

namespace oscar
{
namespace
{
int put(std::unique_ptr<Job_Event> event)
{
  return Job_Event_Manager::instance()->putq(std::move(event), nullptr) >= 0 ? 0 : -1;
}
} // namespace

int put_progress_event(Job_Definition const& def, int progress, unsigned long long a, unsigned long long b,
                       unsigned long long c)
{
  return put(std::make_unique<Job_Progress_Event>(def, progress, a, b, c));
}

int put_item_event(Job_Definition const& def, const std::string& item, size_t number, size_t total)
{
  return put(std::make_unique<kestrel::Job_Item_Event>(def, item, number, total));
}

bool job_is_canceled(const Job_Activity& activity)
{
  const Job_State state = activity.state;
  return state == JOB_STATE_CANCELING || state == JOB_STATE_CANCELED || state == JOB_STATE_ABORTING;
}
} // namespace oscar

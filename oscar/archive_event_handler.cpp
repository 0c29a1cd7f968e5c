#include "oscar/archive_event_handler.h"

#include "jobs/job_activity.h"
#include "oscar/utils_progress.h"

namespace oscar
{
Archive_Event_Handler::Archive_Event_Handler(Job_Definition const* def, Job_Activity* act)
    : MTF::Event_Handler(nullptr), def_(def), act_(act)
{
  pausing_when([act] { return act->state == JOB_STATE_PAUSING; });
}

int Archive_Event_Handler::handle_progress(int progress, unsigned long long a, unsigned long long b,
                                           unsigned long long c)
{
  if (progress == act_->progress)
    return 0;
  act_->progress = progress;
  return put_progress_event(*def_, progress, a, b, c);
}

bool Archive_Event_Handler::canceling()
{
  return job_is_canceled(*act_);
}
} // namespace oscar

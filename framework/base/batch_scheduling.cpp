#include "base/batch_scheduling.h"

#include "base/ignore_result.h"

#include <sched.h>

namespace kestrel
{
namespace
{
bool set_policy(int policy)
{
  const sched_param none = {};
  return ::sched_setscheduler(0, policy, &none) == 0;
}
} // namespace

bool enter_batch_scheduling()
{
  return ::sched_getscheduler(0) == SCHED_OTHER && set_policy(SCHED_BATCH);
}

Batch_Scheduling::Batch_Scheduling() : entered_(enter_batch_scheduling()) {}

Batch_Scheduling::~Batch_Scheduling()
{
  if (entered_)
    ignore_result(set_policy(SCHED_OTHER), "a thread that stays batch work is no less right");
}
} // namespace kestrel

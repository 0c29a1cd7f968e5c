#pragma once

#include "json/value.h"

#include <ctime>
#include <string>

class Job;

namespace kestrel
{
/// One alert of a run, as it was raised.
struct Job_Alert {
  int category = 0;
  int code = 0;
  time_t time = 0;
  json_spirit::Value data;
};
} // namespace kestrel

/// Raises an alert: it is kept with the job's run and goes to the event listeners as (job, category, code).
/// There are two shapes because two families of executors call it so; the integers without a name carry
/// nothing.
///
/// Threads: any thread of the run.
/// Errors:  -1 when the event could not be queued (the alert is kept with the job all the same).
int write_job_alert(Job& job, int category, int code, int, const json_spirit::Value& data, int);
int write_job_alert(Job& job, int category, int, int code, int, int, int, const json_spirit::Value& data, int,
                    int);

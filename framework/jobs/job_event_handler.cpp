#include "jobs/job_event.h"

#include "base/clock.h"
#include "base/ignore_result.h"
#include "base/uuid.h"
#include "jobs/job.h"
#include "jobs/start_time.h"

#include <ace/Log_Msg.h>

#include <cstdarg>
#include <cstdio>
#include <exception>
#include <utility>
#include <vector>

namespace
{
/// While a run waits for its start time it is asked this often whether it is still wanted.
const int64_t WAIT_STEP_MSEC = 50;

void wait_until(time_t start_time, const Job& job)
{
  int64_t steps = (static_cast<int64_t>(start_time) - kestrel::clock().now() + 1) * 1000 / WAIT_STEP_MSEC;
  while (kestrel::clock().now() < start_time && job.state() == JOB_STATE_STARTING && steps-- > 0) {
    kestrel::clock().sleep_msec(WAIT_STEP_MSEC);
  }
}

std::string format_text(const char* format, va_list args)
{
  va_list again;
  va_copy(again, args);
  const int length = std::vsnprintf(nullptr, 0, format, again);
  va_end(again);
  if (length <= 0) {
    return std::string();
  }
  std::vector<char> text(static_cast<std::size_t>(length) + 1);
  std::vsnprintf(text.data(), text.size(), format, args);
  return std::string(text.data(), static_cast<std::size_t>(length));
}
} // namespace

Job_Event_Handler::Job_Event_Handler(Job& job) : job_(job) {}

void Job_Event_Handler::handle_start_job()
{
  const time_t start_time = kestrel::reserve_start_time();
  wait_until(start_time, job_);
  kestrel::ignore_result(uuid_string_to_binary(kestrel::make_uuid().c_str(), job_.activity()->uuid),
                         "a new uuid is well formed");
  job_.begin_work(start_time);
}

void Job_Event_Handler::handle_success()
{
  finish(JOB_STATE_COMPLETED, 0, std::string());
}

void Job_Event_Handler::handle_paused()
{
  finish(JOB_STATE_PAUSED, 0, std::string());
}

void Job_Event_Handler::handle_canceled()
{
  finish(JOB_STATE_CANCELED, 0, std::string());
}

void Job_Event_Handler::handle_failure(int code, const char* format, ...)
{
  std::string text;
  if (format) {
    va_list args;
    va_start(args, format);
    text = format_text(format, args);
    va_end(args);
    ACE_ERROR((LM_ERROR, "(%P|%t) Job %C failed with code %d: %C\n", job_.definition().id().c_str(), code,
               text.c_str()));
  }
  finish(JOB_STATE_ERROR, code, text);
}

void Job_Event_Handler::finish(Job_State result, int code, const std::string& text)
{
  kestrel::ignore_result(job_.settle(result, code, text), "the first result of a run counts");
}

int Job_Event_Handler::handle_progress(int percent, unsigned long long total, unsigned long long done)
{
  Job_Activity& act = *job_.activity();
  act.progress = percent;
  act.progress_total = total;
  act.progress_done = done;
  try {
    std::unique_ptr<Job_Event> event(new Job_Progress_Event(job_.definition(), percent, total, done, 0));
    return Job_Event_Manager::instance()->putq(std::move(event), nullptr) < 0 ? -1 : 0;
  } catch (const std::exception&) {
    return -1;
  }
}

#include "cli/job_command.h"

#include "agent/failure_text.h"
#include "base/clock.h"
#include "cli/cancel_signals.h"
#include "cli/progress_display.h"

#include <mutex>

namespace kestrel
{
int exit_code_of(Job_State state)
{
  switch (state) {
  case JOB_STATE_COMPLETED:
  case JOB_STATE_COMPLETED_WITH_ERRORS:
    return EXIT_CODE_DONE;
  case JOB_STATE_CANCELED:
  case JOB_STATE_PAUSED:
    return EXIT_CODE_CANCELED;
  case JOB_STATE_SKIPPED:
  case JOB_STATE_IDLE:
    return EXIT_CODE_SKIPPED;
  default:
    return EXIT_CODE_FAILED;
  }
}

void report_job(Command_Output& output, const Job_Words& words, const Job_Report& report)
{
  const std::string& what = words.what;
  const Job_Run_Result& run = report.run;
  const std::string reason = run.reason.empty() ? "" : ": " + run.reason;
  switch (report.exit_code) {
  case EXIT_CODE_DONE:
    return;
  case EXIT_CODE_CANCELED:
    output.fail("the " + what + " was canceled; " + words.after_cancel, report.exit_code, run.log_path);
    return;
  case EXIT_CODE_SKIPPED:
    output.fail("the " + what + " was skipped" +
                    (run.state == JOB_STATE_IDLE ? ": its precondition was not met" : reason) + "; " +
                    advice_for(run.alerts),
                report.exit_code, run.log_path);
    return;
  default:
    output.fail("the " + what + " failed" + reason + "; " + advice_for(run.alerts) +
                    (words.after_failure.empty() ? "" : "; " + words.after_failure),
                report.exit_code, run.log_path);
  }
}

Job_Report run_job(Session& session, const Job_Definition_Ptr& definition, const Job_Words& words)
{
  const bool silent = session.line().quiet || session.line().json;
  Progress_Display display(stderr, silent ? Progress_Display::Mode::quiet : progress_mode_of(stderr),
                           words.label);
  std::mutex display_mutex; // progress comes from the event thread, notes from this one
  Job_Report job;
  uint64_t bytes = 0;
  bool cancel_noted = false;

  const Cancel_Signals signals;
  Job_Run_Hooks hooks;
  hooks.progress = [&](uint64_t done_bytes, uint64_t total_bytes) {
    const std::lock_guard<std::mutex> guard(display_mutex);
    bytes = done_bytes;
    display.update(done_bytes, total_bytes);
  };
  hooks.item = [&](const std::string& item, uint64_t number, uint64_t total) {
    const std::lock_guard<std::mutex> guard(display_mutex);
    display.note(item + " (" + std::to_string(number) + " of " + std::to_string(total) + ")");
  };
  hooks.note = [&](const std::string& text) {
    const std::lock_guard<std::mutex> guard(display_mutex);
    display.note(text);
  };
  hooks.cancel_requested = [&] {
    if (Cancel_Signals::requested() && !cancel_noted) {
      cancel_noted = true;
      hooks.note("canceling: waiting for the tools to end");
    }
    return Cancel_Signals::requested();
  };

  const int64_t begin_msec = clock().monotonic_msec();
  std::string error;
  const bool ran = session.host().run(definition, hooks, job.run, error);
  job.duration_msec = clock().monotonic_msec() - begin_msec;
  job.bytes = bytes;
  display.finish();
  if (!ran) {
    session.fail("the " + words.what + " did not start: " + error);
    return job;
  }
  job.exit_code = exit_code_of(job.run.state);
  report_job(session, words, job);
  return job;
}
} // namespace kestrel

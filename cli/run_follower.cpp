#include "cli/run_follower.h"

#include "base/clock.h"
#include "cli/cancel_signals.h"
#include "cli/job_command.h"
#include "cli/served_job.h"
#include "cli/served_json.h"

#include <algorithm>

namespace kestrel
{
namespace
{
const int64_t POLL_MSEC = 400;
/// How long the record of a run that is not under way any more may take to arrive before the user hears of
/// it, and before nobody waits any longer. A host that is away may come back, so this is for one that is
/// connected.
const int64_t SILENCE_NOTED_MSEC = 10 * 1000;
const int64_t SILENCE_LOST_MSEC = 120 * 1000;
const int64_t LEAVE_MSEC = 5 * 1000;
/// A command in a script must end, also when the server or the host is gone for good.
const int64_t AWAY_LOST_MSEC = 60 * 60 * 1000;

Progress_Display::Mode display_mode(const Command_Line& line)
{
  return line.quiet || line.json ? Progress_Display::Mode::quiet : progress_mode_of(stderr);
}
} // namespace

Job_State job_state_of_word(const std::string& word)
{
  Job_State state = JOB_STATE_NONE;
  return job_state_from_text(word, state) ? state : JOB_STATE_NONE;
}

Job_Run_Result result_of_record(const json_spirit::Object& record, const std::string& host_name)
{
  Job_Run_Result result;
  result.state = job_state_of_word(text_in(record, "state"));
  result.reason = text_in(record, "reason");
  const std::string log = text_in(record, "log_path");
  if (!log.empty())
    result.log_path = host_name + ":" + log;
  for (const json_spirit::Object& entry : objects_in(record, "alerts")) {
    Job_Alert alert;
    alert.category = static_cast<int>(number_in(entry, "category"));
    alert.code = static_cast<int>(number_in(entry, "code"));
    alert.data = find_value(entry, "data");
    result.alerts.push_back(alert);
  }
  return result;
}

int exit_code_of(const std::vector<Run_End>& ends)
{
  for (const int code : {EXIT_CODE_FAILED, EXIT_CODE_CANCELED, EXIT_CODE_DONE, EXIT_CODE_SKIPPED})
    for (const Run_End& end : ends)
      if (end.exit_code == code)
        return code;
  return EXIT_CODE_FAILED;
}

Run_Follower::Run_Follower(Console& console, std::string job_id, const std::string& label)
    : console_(console), job_id_(std::move(job_id)), display_(stderr, display_mode(console.line()), label)
{
}

std::vector<Run_End> Run_Follower::follow(const std::vector<Followed_Run>& runs)
{
  const Cancel_Signals signals;
  for (const Followed_Run& run : runs) {
    Watch watch;
    watch.end.run = run;
    watch.silent_since_msec = clock().monotonic_msec();
    watches_.push_back(watch);
  }
  const auto all_finished = [this] {
    return std::all_of(watches_.begin(), watches_.end(), [](const Watch& watch) { return watch.finished; });
  };
  for (;;) {
    poll_job();
    for (Watch& watch : watches_)
      if (!watch.finished && !watch.under_way)
        poll_run(watch);
    show_progress();
    if (all_finished())
      break;
    if (Cancel_Signals::requested() && !cancel_sent_)
      send_cancel();
    leave_after_refusal();
    if (!all_finished())
      clock().sleep_msec(POLL_MSEC);
  }
  display_.finish();
  std::vector<Run_End> ends;
  for (const Watch& watch : watches_)
    ends.push_back(watch.end);
  return ends;
}

void Run_Follower::poll_job()
{
  json_spirit::Object job;
  REST_Problem problem;
  if (!console_.try_get({"jobs", job_id_}, {}, job, problem)) {
    // A definition that somebody has removed meanwhile still leaves the records of its runs.
    for (Watch& watch : watches_)
      watch.under_way = false;
    if (problem.status != 404)
      note_trouble(problem);
    return;
  }
  if (in_trouble_)
    display_.note("the server answers again");
  in_trouble_ = false;
  const json_spirit::Object states = object_in(job, "states");
  for (Watch& watch : watches_)
    if (!watch.finished)
      take_state(watch, object_in(states, watch.end.run.host_uuid.c_str()));
}

void Run_Follower::take_state(Watch& watch, const json_spirit::Object& told)
{
  const json_spirit::Value& online = find_value(told, "online");
  take_presence(watch, online.type() == json_spirit::bool_type && !online.get_bool());
  if (watch.finished)
    return;
  const json_spirit::Object now = object_in(told, "now");
  const bool this_run = text_in(now, "run_id") == watch.end.run.run_id;
  const bool listed = text_in(told, "run_id") == watch.end.run.run_id && flag_in(told, "running");
  const Job_State state = job_state_of_word(text_in(now, "state"));
  watch.under_way = this_run ? job_run_in_progress(state) : listed;
  if (watch.under_way)
    watch.silent_since_msec = clock().monotonic_msec();
  if (!this_run)
    return;
  watch.done_bytes = static_cast<uint64_t>(std::max<int64_t>(0, number_in(now, "done_bytes")));
  watch.total_bytes = static_cast<uint64_t>(std::max<int64_t>(0, number_in(now, "total_bytes")));
  const std::string item = text_in(now, "item");
  if (!item.empty() && item != watch.item)
    display_.note(item);
  watch.item = item;
}

void Run_Follower::take_presence(Watch& watch, bool away)
{
  const int64_t now_msec = clock().monotonic_msec();
  if (away != watch.noted_absence) {
    display_.note("the host " + console_.host_name(watch.end.run.host_uuid) +
                  (away ? " is not connected; its run goes on without the server" : " is connected again"));
    watch.away_since_msec = now_msec;
  }
  watch.noted_absence = away;
  if (!away || now_msec - watch.away_since_msec < AWAY_LOST_MSEC)
    return;
  watch.finished = true;
  watch.end.problem = "the host " + console_.host_name(watch.end.run.host_uuid) +
                      " has not been connected for an hour; whether the run " + watch.end.run.run_id +
                      " goes on there is not known; look at 'kestrel job runs' later";
}

void Run_Follower::poll_run(Watch& watch)
{
  json_spirit::Object record;
  REST_Problem problem;
  if (!console_.try_get({"runs", watch.end.run.run_id}, {}, record, problem)) {
    if (problem.status == 404)
      give_up_when_lost(watch);
    else
      note_trouble(problem);
    return;
  }
  if (number_in(record, "ended_at") == 0)
    return;
  watch.end.record = record;
  watch.end.result = result_of_record(record, console_.host_name(watch.end.run.host_uuid));
  watch.end.exit_code = exit_code_of(watch.end.result.state);
  watch.end.known = true;
  watch.done_bytes = std::max(watch.done_bytes,
                              static_cast<uint64_t>(std::max<int64_t>(0, number_in(record, "done_bytes"))));
  watch.finished = true;
}

void Run_Follower::give_up_when_lost(Watch& watch)
{
  const int64_t silent_msec = clock().monotonic_msec() - watch.silent_since_msec;
  if (silent_msec < SILENCE_NOTED_MSEC)
    return;
  json_spirit::Object host;
  REST_Problem problem;
  if (!console_.try_get({"hosts", watch.end.run.host_uuid}, {}, host, problem)) {
    note_trouble(problem);
    return;
  }
  const std::string name = text_in(host, "name");
  const bool online = flag_in(host, "online");
  if (!watch.noted_silence)
    display_.note(online ? "waiting for the host " + name + " to tell how the run ended"
                         : "the host " + name + " is not connected; its run goes on without the server");
  watch.noted_silence = true;
  if (!online || silent_msec < SILENCE_LOST_MSEC)
    return;
  watch.finished = true;
  watch.end.problem = "the host " + name + " does not tell how the run " + watch.end.run.run_id +
                      " ended; look at 'kestrel job runs' later and at the agent's log there";
}

void Run_Follower::show_progress()
{
  uint64_t total = 0;
  done_bytes_ = 0;
  for (const Watch& watch : watches_) {
    done_bytes_ += watch.done_bytes;
    total += watch.total_bytes;
  }
  if (total > 0)
    display_.update(done_bytes_, total);
}

void Run_Follower::send_cancel()
{
  cancel_sent_ = true;
  std::vector<std::string> hosts;
  for (const Watch& watch : watches_)
    if (!watch.finished)
      hosts.push_back(watch.end.run.host_uuid);
  std::vector<Control_Result> results;
  REST_Problem problem;
  if (!control_job(console_, job_id_, "cancel", hosts, results, problem)) {
    end_all("the cancel did not reach the server, and the job goes on: " + problem.text);
    return;
  }
  bool taken = false;
  for (const Control_Result& result : results) {
    taken = taken || result.problem.empty();
    if (!result.problem.empty())
      cancel_refusal_ =
          "the host " + console_.host_name(result.host_uuid) + " did not take the cancel: " + result.problem;
  }
  cancel_refused_msec_ = taken ? 0 : clock().monotonic_msec();
  display_.note(taken ? "canceling: waiting for the tools to end" : cancel_refusal_);
}

/// Who asked for a cancel that nobody took is not kept waiting; a run that had just ended still shows its
/// end.
void Run_Follower::leave_after_refusal()
{
  if (cancel_refused_msec_ > 0 && clock().monotonic_msec() - cancel_refused_msec_ >= LEAVE_MSEC)
    end_all(cancel_refusal_ + "; the job goes on");
}

void Run_Follower::note_trouble(const REST_Problem& problem)
{
  if (problem.kind == REST_Problem::refused) {
    end_all((problem.status == 401 ? std::string("the sign-in has ended") : problem.text) +
            "; the job goes on without this console");
    return;
  }
  const int64_t now_msec = clock().monotonic_msec();
  if (!in_trouble_) {
    display_.note("no answer from the server, trying on: " + problem.text);
    trouble_since_msec_ = now_msec;
  } else if (now_msec - trouble_since_msec_ >= AWAY_LOST_MSEC) {
    end_all(
        "the server has not answered for an hour; the job may go on without it; look at 'kestrel job runs' "
        "later: " +
        problem.text);
  }
  in_trouble_ = true;
}

void Run_Follower::end_all(const std::string& problem)
{
  for (Watch& watch : watches_) {
    if (watch.finished)
      continue;
    watch.finished = true;
    watch.end.problem = problem;
  }
}
} // namespace kestrel

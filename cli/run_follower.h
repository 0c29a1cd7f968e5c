#pragma once

#include "cli/console.h"
#include "cli/progress_display.h"

#include <string>
#include <vector>

namespace kestrel
{
/// One run that is followed.
struct Followed_Run {
  std::string host_uuid;
  std::string run_id;
};

/// How it ended, as far as that is known.
struct Run_End {
  Followed_Run run;
  bool known = false; ///< false: `problem` says why nobody knows
  std::string problem;
  json_spirit::Object record; ///< of the run, as the server keeps it
  Job_Run_Result result;
  int exit_code = 1;
};

/// Waits for runs of one job to end, shows how far they are, and passes a cancel on.
/// Purpose:  asks the server again and again; a server or a host that is away is waited for, up to an hour.
/// Threads:  main thread. SIGINT, SIGTERM and SIGHUP become one cancel request while follow() runs.
/// Errors:   nothing is said to the user but remarks; each run's end tells.
class Run_Follower
{
public:
  /// Nothing is owned; all must outlive this. `label` stands before the bar.
  Run_Follower(Console& console, std::string job_id, const std::string& label);

  /// Blocks until every run has ended or nothing more can be learned.
  std::vector<Run_End> follow(const std::vector<Followed_Run>& runs);
  /// As last told, of all runs together.
  uint64_t bytes() const { return done_bytes_; }

private:
  struct Watch {
    Run_End end;
    bool finished = false;
    bool under_way = false; ///< the host told last that this very run is not over
    uint64_t done_bytes = 0;
    uint64_t total_bytes = 0;
    std::string item;
    int64_t silent_since_msec = 0; ///< nothing was told of the run since
    bool noted_silence = false;
    bool noted_absence = false; ///< of its host
    int64_t away_since_msec = 0;
  };

  void poll_job();
  void take_state(Watch& watch, const json_spirit::Object& told);
  void take_presence(Watch& watch, bool away);
  void poll_run(Watch& watch);
  void give_up_when_lost(Watch& watch);
  void show_progress();
  void send_cancel();
  void leave_after_refusal();
  void note_trouble(const REST_Problem& problem);
  void end_all(const std::string& problem);

  Console& console_;
  const std::string job_id_;
  Progress_Display display_;
  std::vector<Watch> watches_;
  uint64_t done_bytes_ = 0;
  bool in_trouble_ = false;
  int64_t trouble_since_msec_ = 0;
  bool cancel_sent_ = false;
  std::string cancel_refusal_; ///< why no host took the cancel
  int64_t cancel_refused_msec_ = 0;
};

/// A run's record as the result that messages are made of. `log_path` names the host too.
Job_Run_Result result_of_record(const json_spirit::Object& record, const std::string& host_name);
/// The state with this name; JOB_STATE_NONE for an unknown one.
Job_State job_state_of_word(const std::string& word);
/// What a command that followed several runs ends with: a failure goes before a cancel, that before a
/// success, that before a skip (of several nodes of a cluster one does the work).
int exit_code_of(const std::vector<Run_End>& ends);
} // namespace kestrel

#pragma once

#include "agent/job_runner.h"

#include <chrono>
#include <cstdint>
#include <string>

namespace kestrel
{
/// How often runs and locks are looked at; ends are told by events, so this is for locks of other processes.
constexpr auto runner_look_interval = std::chrono::milliseconds(100);

/// One run of the runner's, from its request to the end of its record. For job_runner*.cpp only.
struct Job_Runner::Run {
  Run_Record record;
  Job_Definition_Ptr definition;
  Job::Opts options;
  std::string lock_path;
  std::string note; ///< the reason unless the job gives one
  /// Held while the job's state is looked at and the job told accordingly. Before the runner's mutex.
  std::mutex control;

  // Guarded by the runner's mutex.
  Job_Ptr job;
  File_Lock lock;
  std::string lock_problem; ///< why there will be no lock
  bool cancel = false;      ///< asked for before there was a job
  int progress = 0;
  uint64_t done_bytes = 0;
  uint64_t total_bytes = 0;
  std::string item;
  int64_t told_at = 0;
  std::chrono::steady_clock::time_point ended_at; ///< when the end was first seen
};
} // namespace kestrel

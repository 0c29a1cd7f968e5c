#pragma once

#include <ace/Log_Msg_Callback.h>

#include <memory>
#include <mutex>
#include <string>

namespace kestrel
{
class Log_File_Callback;

/// Where the lines of a job's threads go: one object for the job's whole life, one file for each run.
/// Threads: any. Lines that come between two runs go to the file of the run before.
class Job_Log : public ACE_Log_Msg_Callback
{
public:
  /// Begins the log of a new run. Without a file (one warning tells why) the lines reach the agent's log
  /// only.
  void begin_run(const std::string& definition_id);
  std::string path() const;
  void log(ACE_Log_Record& record) override;

private:
  mutable std::mutex mutex_;
  std::shared_ptr<Log_File_Callback> file_;
  std::string path_;
};
} // namespace kestrel

#pragma once

#include <ctime>
#include <string>

#include "base/file_lock.h"
#include "base/secure_allocator.h"
#include "oscar/stream_fifo.h"
#include "oscar/stream_pump.h"
#include "oscar/utils_progress.h"

class Job;
class Job_Event_Handler;
struct Job_Activity;

namespace oscar
{
class Brcmd_Tool_Run;

/// What backup and restore by brcmd have in common.

/// The time as local time, as it stands in names: 20240105_013000.
std::string name_time_text(time_t time);
/// The time as local time, as it stands in the catalog's texts: 2024-01-05 01:30:00.
std::string catalog_time_text(time_t time);

/// Raises an alert of the physical jobs. errno stays, so that the message that follows can show it.
void raise_physical_alert(Job& job, int code);

/// Path of the FIFO of a run that started at start_time.
std::string fifo_path(time_t start_time);
/// Makes the FIFO; false = failed, alert raised and logged.
[[nodiscard]] bool create_fifo(Job& job, Stream_Fifo& fifo);
/// Opens one end of the FIFO, which blocks until the tool opens or ends. -1 = failed, alert raised and
/// logged.
[[nodiscard]] int open_fifo(Job& job, Stream_Fifo& fifo, Stream_Fifo::Side side);
/// Path of a log that brcmd writes.
std::string brcmd_log_path(const std::string& name);

/// What is needed to run tools on an instance.
struct Instance_Access {
  std::string oscar_home;
  std::string username;
  secure_string password;

  ~Instance_Access() { kestrel::wipe(password); }
};

enum class Unknown_Instance { SILENT, ALERT };

/// Reads account and installation directory of the job's instance. False = failed, alert raised and logged,
/// but for an unknown instance as asked.
[[nodiscard]] bool find_instance_access(Job& job, const std::string& instance, Unknown_Instance unknown,
                                        Instance_Access& access);

/// Waits until no other physical job, of this process or another, works on the instance, and keeps them off
/// for as long as the lock lives. The lock of a job's source does not do that: a restore into another
/// instance, or a document of somebody's own, brings another source to the instance. Take it as the last
/// lock, and one only. False = the job was canceled meanwhile, or there is no lock, which is logged.
[[nodiscard]] bool lock_instance(Job& job, const std::string& instance, kestrel::File_Lock& lock);

/// Looks once a second, at most that many times, whether the process is gone; true as soon as it is. One that
/// may not be signalled counts as there.
[[nodiscard]] bool wait_process_gone(int pid, int polls);
/// Starts the instance that was stopped for the job. A start that fails does not change the job's result: one
/// line at LM_ERROR says what to do.
void restart_instance(const std::string& oscar_home, const std::string& instance);

/// Connects a pump to the job that it works for. Nothing is owned; all must outlive the object.
class Job_Pump_Host : public Stream_Pump_Host
{
public:
  Job_Pump_Host(Job& job, const Job_Activity& activity, Job_Event_Handler& events, Brcmd_Tool_Run& tool)
      : job_(job), activity_(activity), events_(events), tool_(tool)
  {
  }

  bool canceled() const override;
  void bytes_moved() override;
  void progress(int percent, uint64_t total, uint64_t done) override;
  void alert(int code) override { raise_physical_alert(job_, code); }
  std::string definition_id() const override;

private:
  Job& job_;
  const Job_Activity& activity_;
  Job_Event_Handler& events_;
  Brcmd_Tool_Run& tool_;
};
} // namespace oscar

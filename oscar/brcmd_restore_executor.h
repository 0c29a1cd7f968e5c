#pragma once

#include "base/secure_allocator.h"
#include "job/job_executor_t.h"
#include "oscar/brcmd_restore_sequence.h"
#include "oscar/restore_job_options.h"
#include "oscar/restore_job_source.h"
#include "storage/client_io.h"
#include "json/value.h"

#include <map>
#include <string>
#include <vector>

namespace oscar
{
class Brcmd_Tool_Run;
class Stream_Fifo;
class Stream_Progress;

/// Restores one instance from the physical backup sets that make up the chosen backup: the server is stopped,
/// each stored file is fed to brcmd through a FIFO, and the server is started again.
/// Threads:   everything runs on the job's thread; one more thread runs brcmd (Brcmd_Tool_Run).
/// Ownership: one object a run; the job must outlive it.
/// Errors:    false = failed, logged, and a job alert raised where one is defined. brcmd sees the end of its
///            stream only after the storage reader has confirmed the checksum of the whole file; until then a
///            failure terminates it, so that it never takes a short or wrong stream for a complete one.
/// Crash:     the server stays stopped and a FIFO stays behind.
class Oscar_Brcmd_Restore_Executor
    : public Job_Executor_T<Restore_Job_Source, Restore_Job_Options, Job_Event_Handler>
{
public:
  typedef std::map<std::string, json_spirit::Value> Values;

  explicit Oscar_Brcmd_Restore_Executor(Job& job);
  ~Oscar_Brcmd_Restore_Executor() override;

  bool is_active(const Values* params) override;
  bool execute_i(const Values* params) override;
  /// The job was asked to cancel or abort. One atomic read: the pump asks once a block.
  bool is_canceled() const;

private:
  // The steps of a run, in the order in which they are taken.
  bool choose_backup();
  bool find_instance();
  bool read_sequence();
  bool pools_are_there();
  bool stop_instance();
  bool restore_sets(const Client_IO_Base::Options& options, Stream_Fifo& fifo);
  bool restore_set(const Restore_Set& set, const Client_IO_Base::Options& options, Stream_Fifo& fifo,
                   Stream_Progress& progress);
  bool feed_tool(const Restore_Set& set, Client_IO_Ex& storage, Stream_Fifo& fifo, Brcmd_Tool_Run& tool,
                 Stream_Progress& progress);

  bool get_latest_info_from_catalog();
  std::string brcmd_command(const Stream_Fifo& fifo) const;
  /// The instance that is restored.
  std::string target_instance() const;
  /// The backup to restore: the newest one for a periodic job, else the one that the job source names. The
  /// newest is kept here and not in the job source, which is written back with the definition and must not
  /// change.
  const std::string& backup_id() const;

  std::string _oscar_home;
  std::string _instance;
  std::string _username;
  secure_string _password;
  unsigned short _port;
  std::vector<Restore_Set> _sets;
  uint64_t _total_bytes;
  std::string _latest_backup_id;
};
} // namespace oscar

#pragma once

#include "base/secure_allocator.h"
#include "job/job_executor_t.h"
#include "oscar/backup_job_options.h"
#include "oscar/backup_job_source.h"
#include "oscar/backup_source_collector.h"
#include "oscar/brcmd_chain_state.h"
#include "json/value.h"

#include <cstdint>
#include <map>
#include <string>

class Client_IO_Ex;
class Oscar_Brcmd_Backup_Set;

namespace oscar
{
class Brcmd_Tool_Run;
class Stream_Fifo;
struct Pumped_Stream;

/// Runs one physical backup of one instance: brcmd writes into a FIFO, the bytes go into one stored file, and
/// the finished set is recorded in the catalog.
/// Threads:   everything runs on the job's thread; one more thread runs brcmd (Brcmd_Tool_Run).
/// Ownership: one object a run; the job must outlive it.
/// Errors:    false = failed, logged, and a job alert raised where one is defined. Nothing is committed
///            unless brcmd ended with success, the stored file was closed durably, and the byte count and
///            checksum taken at the FIFO agree with the storage's own.
/// Crash:     leaves a FIFO and a partial file under its temporary name; neither is ever listed as a backup.
///            A server that was stopped for an offline backup stays stopped.
class Oscar_Brcmd_Backup_Executor
    : public Job_Executor_T<Backup_Job_Source, Backup_Job_Options, Job_Event_Handler>
{
public:
  typedef std::map<std::string, json_spirit::Value> Values;

  explicit Oscar_Brcmd_Backup_Executor(Job& job);
  ~Oscar_Brcmd_Backup_Executor() override;

  bool is_active(const Values* params) override;
  bool execute_i(const Values* params) override;
  /// The job was asked to cancel or abort. One atomic read: the pump asks once a block.
  bool is_canceled() const;

private:
  struct Run;

  // The steps of a run, in the order in which they are taken.
  bool find_instance();
  bool choose_level(Values& catalog);
  void look_up_port();
  void build_names(Run& run);
  bool read_archive_mode(bool& archivelog);
  bool back_up(Run& run, Stream_Fifo& fifo);
  bool open_storage(const Run& run, Client_IO_Ex& storage);
  bool stream(const Run& run, Stream_Fifo& fifo, Brcmd_Tool_Run& tool, Client_IO_Ex& storage,
              Pumped_Stream& pumped);
  bool close_storage(const Run& run, Client_IO_Ex& storage, const Pumped_Stream& pumped);
  bool record(Run& run, const Client_IO_Ex& storage, const Pumped_Stream& pumped);

  void put_job_values(const Run& run, const Client_IO_Ex& storage, Values& catalog) const;
  bool put_chain_values(Values& catalog);

  bool get_last_backup_info(Last_Backup_Info& info);
  bool check_full_backup_set_state(const Last_Backup_Info& info);
  bool stop_instance();
  uint64_t get_backup_set_size(const char* data, unsigned len);
  bool build_oscar_brcmd_backup_set(const Values& map, Oscar_Brcmd_Backup_Set& set);
  Compression_Method compression_method() const;

  std::string _oscar_home;
  std::string _instance;
  std::string _username;
  secure_string _password;
  unsigned short _port;
  Job_Definition_Subtype _job_type;
  Backup_Source_Collector _collector;
};
} // namespace oscar

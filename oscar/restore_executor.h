#pragma once

#include "job/job_executor_t.h"
#include "oscar/logical_catalog.h"
#include "oscar/logical_job.h"
#include "oscar/restore_job_options.h"
#include "oscar/restore_job_source.h"
#include "oscar/utils_export.h"

#include <map>
#include <string>
#include <vector>

class Instance_Manager;
class MTF_Restore;

namespace oscar
{
/// Restores one object of a logical backup: the missing user tablespaces are created on the target instance,
/// the object's dump file is fetched out of the archive, and osrimp imports it. The instance stays up.
/// Limits:    one object a run. Runs beside backups of the same source.
/// Threads:   everything runs on the job's thread; one more thread watches each tool.
/// Ownership: one object a run; the job must outlive it.
/// Errors:    false = failed, logged, and a job alert raised. Until the import begins nothing but tablespaces
///            has changed; what a failed import leaves is the tool's affair.
/// Crash:     leaves the dump directory, which the definition's next run empties.
class Restore_Executor : public Job_Executor_T<Restore_Job_Source, Restore_Job_Options, Job_Event_Handler>
{
public:
  typedef std::map<std::string, json_spirit::Value> Values;

  explicit Restore_Executor(Job& job);
  ~Restore_Executor() override;

  bool is_active(const Values* params) override;
  bool execute_i(const Values* params) override;

private:
  // The steps of a run, in the order in which they are taken.
  bool get_latest_info_from_catalog();
  bool find_instance();
  bool create_tablespaces();
  bool fetch_and_import(const std::string& dump_directory);

  bool read_recorded_tablespaces(std::vector<std::string>& names);
  void add_default_tablespace(std::vector<std::string>& names);
  bool create_tablespace(const std::string& name, const std::string& time);
  void set_target();
  bool set_dump_file(const std::string& dump_directory);
  void set_archive(MTF_Restore& archive);
  bool fail(int alert, const char* message);
  /// The end of a step that has logged why it failed.
  bool failed_step();
  /// The instance that the object goes to.
  std::string target_instance() const;

  Logical_Backup backup_;
  std::string recorded_file_; // the dump file to import, as the catalog names it
  Restore_Input input_;
  Job_Tool_Host tools_;
};
} // namespace oscar

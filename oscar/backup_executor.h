#pragma once

#include "archive/mtf.h"
#include "job/job_executor_t.h"
#include "oscar/backup_job_options.h"
#include "oscar/backup_job_source.h"
#include "oscar/backup_source_collector.h"
#include "oscar/oscar_metadata.h"
#include "oscar/utils_export.h"
#include "rpc/http_session.h"

#include <map>
#include <string>
#include <vector>

class Instance_Manager;
class Oscar_Backup_Set;

namespace oscar
{
/// Runs one logical backup: osrexp exports every selected object of one instance into a dump file, the files
/// go as one archive into storage, and the finished set is recorded in the catalog.
/// Limits:    all objects are exported from the instance that the last entry of the source names.
/// Threads:   everything runs on the job's thread; one more thread watches each tool.
/// Ownership: one object a run; the job must outlive it.
/// Errors:    false = failed, logged, and a job alert raised where one is defined. Nothing is committed
///            unless every object was exported and the archive is durable.
/// Crash:     leaves the dump directory, which the definition's next run empties, and perhaps a stored
///            archive without a record; it is never listed, and its number is not used again.
class Backup_Executor : public Job_Executor_T<Backup_Job_Source, Backup_Job_Options, Job_Event_Handler>
{
public:
  typedef std::map<std::string, json_spirit::Value> Values;
  typedef std::vector<Backup_Source_Collector::Source> Sources;

  explicit Backup_Executor(Job& job);
  ~Backup_Executor() override;

  bool is_active(const Values* params) override;
  bool execute_i(const Values* params) override;

  /// The number of the definition's latest set; 0 when there is none or the catalog does not tell.
  unsigned last_seq();
  /// Connects to the backup server. False: alert raised and logged.
  [[nodiscard]] bool init_session();
  [[nodiscard]] bool init_metadata(const std::string& instance, Oscar_Metadata& metadata);
  /// Names one dump file an object and makes their directories below `root`; a directory that cannot be made
  /// is logged, and the export of its files fails.
  void init_destination_files(const std::string& prefix, unsigned seq, const std::string& root,
                              const Sources& sources, std::vector<Backup_File>& files);
  /// What the catalog keeps, but for what only the archive knows (number, stored file, sizes).
  void build_oscar_backup_set(const Oscar_Metadata& metadata, const std::vector<Backup_File>& files,
                              Oscar_Backup_Set& set);

private:
  struct Run;

  // The steps of a run, in the order in which they are taken.
  void reset_activity();
  bool find_login(Instance_Manager& manager, Run& run);
  bool find_home(Instance_Manager& manager, Run& run);
  void set_archive(MTF_Backup& archive);
  bool back_up(Run& run, MTF_Backup& archive);
  bool put_tablespaces(Run& run);
  bool record(const Run& run, const MTF_Backup& archive);
  void add_file(const Backup_File& file, Oscar_Backup_Set& set) const;
  bool fail(int alert, const char* message);
  std::string server_name() const;

  Backup_Source_Collector sources_;
  std::string uuid_;
  std::vector<MTF::Stored_Member> members_; // of the stored archive
  JSON_HTTP_Session session_;
  CGI_Request request_;
};
} // namespace oscar

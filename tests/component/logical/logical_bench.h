#pragma once

#include "catalog/catalog_back_end.h"
#include "instances/instance_registry.h"
#include "jobs/job.h"
#include "jobs/job_event.h"
#include "oscar/backup_job_source.h"
#include "oscar/restore_job_source.h"
#include "support/clocks.h"
#include "support/log_capture.h"
#include "support/scoped_env.h"
#include "support/temp_dir.h"
#include "json/value.h"

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace kestrel_test
{
typedef ACE_Intrusive_Auto_Ptr<Job> Job_Ptr;
typedef std::vector<int> Codes;

/// Changes or refuses what the catalog answers and takes; by default it does neither.
class Shaped_Catalog : public kestrel::Catalog_Back_End
{
public:
  typedef std::map<std::string, json_spirit::Value> Query;

  /// Registered from here to the end of the scope.
  static std::shared_ptr<Shaped_Catalog> install();

  kestrel::Catalog_Status get_view(const std::string& catalog, const std::string& view, const Query& query,
                                   json_spirit::Value& result, std::string& error) override;
  kestrel::Catalog_Status commit(const kestrel::Backup_Record& record, bool must_be_new, std::string& warning,
                                 std::string& error) override;
  kestrel::Catalog_Status set_state(const std::string& uuid, kestrel::Set_State state,
                                    const std::string& reason, std::string& error) override;
  kestrel::Catalog_Status remove(const std::string& uuid, std::string& error) override;
  kestrel::Catalog_Status dependents(const std::string& uuid, std::vector<std::string>& uuids,
                                     std::string& error) override;
  kestrel::Catalog_Status count_by_pool(const std::string& pool_uuid, uint64_t& count,
                                        std::string& error) override;

  std::vector<Query> queries();

  /// Applied to every answer for which `concerns` is true (empty: all).
  std::function<bool(const Query&)> concerns;
  std::function<void(json_spirit::Value&)> change;
  bool refuse_views = false;
  bool refuse_commits = false;

private:
  std::shared_ptr<kestrel::Catalog_Back_End> inner_ = kestrel::catalog_back_end();
  std::mutex mutex_;
  std::vector<Query> queries_;
};

/// Everything that a logical job needs, in a temporary tree: an installation with the instance LOGI1 and
/// scripted tools, a registry, an account, a pool, a catalog.
class Logical_Bench
{
public:
  explicit Logical_Bench(unsigned time_factor = 20);
  ~Logical_Bench();

  // The tools. Each call is written down before the steps are taken.
  void set_tool(const std::string& name, const std::string& steps);
  /// An osrexp that writes a dump file of this many patterned bytes.
  void set_osrexp(size_t bytes);
  /// What osrexp writes then.
  static std::string dump_content(size_t bytes);
  /// isql: the user tablespaces that there are, and what it does for any other statement.
  void set_tablespaces(const std::vector<std::string>& names, const std::string& create_steps = "");
  /// osrimp: its version, and what it does with a dump file.
  void set_osrimp(const std::string& version, const std::string& steps);
  /// The calls of a tool so far: its arguments joined by blanks, one entry a call.
  std::vector<std::string> calls(const std::string& tool) const;
  std::string option(const std::string& call, const std::string& prefix) const;

  // Jobs. The fields may be changed before the job is made.
  kestrel::Job_Definition_Fields backup_fields(const std::vector<std::string>& entries) const;
  kestrel::Job_Definition_Fields restore_fields(const std::string& schema = "",
                                                const std::string& table = "") const;
  static oscar::Restore_Job_Source& restore_source(const kestrel::Job_Definition_Fields& fields);
  static Job_Ptr make_job(const kestrel::Job_Definition_Fields& fields);
  static Job_State wait_end(const Job_Ptr& job);
  static Job_State run(const Job_Ptr& job);
  static Job_State run(const kestrel::Job_Definition_Fields& fields, Codes* alerts = nullptr);
  static Codes alerts(const Job_Ptr& job);
  /// A backup of these entries that must succeed; its row.
  json_spirit::Object back_up(const std::vector<std::string>& entries);

  // What is there afterwards.
  json_spirit::Array rows() const;
  std::string dump_path() const
  {
    return dir / ("root/var/cache/tarnvik/kestrel3/oscar/dump/" + DEFINITION_ID);
  }
  bool wait_for(const std::string& path) const;
  void expect_no_dump_left() const;
  /// Neither a whole one nor an unfinished one.
  void expect_no_archive_left() const;
  void add_instance(const std::string& name, bool with_home = true);

  static const std::string DEFINITION_ID;
  static const std::string SOURCE_ID;
  static const std::string SECRET;

  Temp_Dir dir;
  const Scoped_Env root;
  Scaled_Clock clock;
  Log_Capture log;
  const std::string home;
  const std::string pool_dir;
  std::string pool_id;
};
} // namespace kestrel_test

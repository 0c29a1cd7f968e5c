#pragma once

#include "jobs/job.h"
#include "support/clocks.h"
#include "support/log_capture.h"
#include "support/loopback.h"
#include "support/scoped_env.h"
#include "support/temp_dir.h"
#include "support/waiting.h"
#include "json/value.h"

#include <string>
#include <thread>
#include <vector>

namespace kestrel_test
{
typedef ACE_Intrusive_Auto_Ptr<Job> Job_Ptr;

/// The server process of the stand-in instance: a real process whose pid stands in the instance's .db file.
/// It is reaped as soon as it ends, as init would.
class Fake_Server
{
public:
  /// script: what the process does; see tests/tools/fake_tool/README.md.
  Fake_Server(const Temp_Dir& dir, const std::string& script);
  ~Fake_Server();
  Fake_Server(const Fake_Server&) = delete;
  Fake_Server& operator=(const Fake_Server&) = delete;

  pid_t pid() const { return pid_; }
  bool running() const;

private:
  pid_t pid_;
  std::thread reaper_;
};

/// A whole installation in a temporary directory: product tree, pool, catalog, instance PHYS7 with its
/// account, and the tools as scripts. Everything but the tools is the real thing. At its end no FIFO and no
/// child process may be left.
class Physical_Bench
{
public:
  explicit Physical_Bench(unsigned time_factor = 20);
  ~Physical_Bench();
  Physical_Bench(const Physical_Bench&) = delete;
  Physical_Bench& operator=(const Physical_Bench&) = delete;

  // The tools. `brcmd` gets what is behind the backup and the restore branch.
  void set_brcmd(const std::string& backup_steps, const std::string& restore_steps = "exit 99");
  void set_isql(const std::string& log_mode_answer);
  /// The steps of a brcmd that gives the whole stream and then writes the chain state.
  std::string good_backup() const;
  std::string good_restore() const;
  /// The steps of a restoring brcmd that leaves the file "restored" only when it has read a whole stream and
  /// nobody stopped it.
  std::string marking_restore() const;
  /// The stream that the good brcmd gives.
  void set_stream(const std::string& stream);
  /// A stream of that many image bytes whose info text names a file of this size.
  std::string make_good_stream(size_t image_bytes) const;
  /// The chain state after the next backup.
  void set_next_state(const std::string& full, const std::string& last, unsigned number);
  std::string state_text(const std::string& full, const std::string& last, unsigned number) const;

  // Jobs. The fields may be changed before the job is made.
  kestrel::Job_Definition_Fields
  backup_fields(Job_Definition_Subtype subtype = JOB_DEFINITION_SUBTYPE_FULL) const;
  kestrel::Job_Definition_Fields restore_fields(const std::string& backup_id) const;
  static Job_Ptr make_job(const kestrel::Job_Definition_Fields& fields);
  static Job_State wait_end(const Job_Ptr& job);
  /// Starts the job and waits for its end.
  static Job_State run(const Job_Ptr& job);
  static Job_State run(const kestrel::Job_Definition_Fields& fields, std::vector<int>* alerts = nullptr);
  static std::vector<int> alerts(const Job_Ptr& job);
  /// A backup that must succeed.
  void back_up(Job_Definition_Subtype subtype = JOB_DEFINITION_SUBTYPE_FULL);

  // What is there afterwards.
  json_spirit::Array rows() const;
  std::vector<std::string> stored_files() const;
  /// Those of them that look like whole files: no temporary names, no side files.
  std::vector<std::string> whole_files() const;
  /// After a failed backup: nothing is recorded, and a good tool succeeds afterwards. uncommitted: the number
  /// of whole files in the pool; only a failure after the file was closed leaves one.
  void expect_recovery(size_t uncommitted = 0);
  std::vector<std::string> fifos() const;
  /// Number of times the start command of the instance was run.
  unsigned starts() const;
  std::string stored_path(const std::string& name) const { return pool_dir + "/" + source_id + "/" + name; }
  /// The arguments of the last brcmd, joined by blanks.
  std::string brcmd_arguments() const;
  bool wait_for(const std::string& path) const { return wait_for_file(path); }
  /// Waits until all of a good stream of 100000 image bytes has been moved.
  static bool wait_streamed(const Job_Ptr& job);

  static std::vector<std::string> list(const std::string& directory);
  /// Pids of the children of this process.
  static std::vector<pid_t> children();

  Temp_Dir dir;
  const Scoped_Env root;
  const Scoped_Env search_path;
  Scaled_Clock clock;
  Log_Capture log;
  const std::string home;
  const std::string pool_dir;
  const std::string source_id = "7d3a1c52-0000-4000-8000-000000000001";
  std::string pool_id;
  std::string data_file;
  unsigned short port = 0;

private:
  void register_instance();
  void add_pool();

  const Loopback_Listener listener_; ///< an instance counts as online when something listens on its port
  const std::vector<pid_t> children_before_;
};

const std::string secret = "s3cr3t-pw";
} // namespace kestrel_test

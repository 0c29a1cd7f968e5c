#pragma once

#include "agent/agent_jobs.h"
#include "agent/module_table.h"
#include "support/physical_bench.h"

#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace kestrel_test
{
/// An agent's job side with the real module, on the bench's instance with its tools as scripts.
class Agent_Bench
{
public:
  explicit Agent_Bench(unsigned max_concurrent = 2);
  ~Agent_Bench();
  Agent_Bench(const Agent_Bench&) = delete;
  Agent_Bench& operator=(const Agent_Bench&) = delete;

  /// An id and a source of its own for each number.
  static std::string id(unsigned number);
  static std::string source(unsigned number);
  /// Lets the tool give good backups.
  void set_good_brcmd();
  /// A full backup of the bench's instance. With `waits` its pre-action writes up_NUMBER and waits for
  /// go_NUMBER.
  json_spirit::Object document(unsigned number, bool waits = false) const;
  json_spirit::Object document_of_source(unsigned number, unsigned source_number, bool waits = false) const;
  static json_spirit::Object definition(const json_spirit::Object& document, uint64_t revision = 1,
                                        bool enabled = true);

  /// Makes the agent without opening it; the one before is gone.
  kestrel::Agent_Jobs& make();
  void open();
  void start();
  /// Ends the agent; everything must have ended in time.
  void stop(unsigned grace_seconds = 600, bool cancel = false);
  /// The complete set of the server's definitions. Gives what was refused.
  json_spirit::Array sync(const json_spirit::Array& definitions);
  void sync_documents(const std::vector<json_spirit::Object>& documents);

  /// A request that must be granted. Gives the run.
  std::string control(unsigned number, const std::string& action);
  /// A request that must be refused with the code. Gives the reason.
  std::string refusal(unsigned number, const std::string& action, int code = kestrel::Jobs_Error::refused);
  bool wait_up(unsigned number) const { return wait_for_file(bench.dir / ("up_" + std::to_string(number))); }
  void let_go(unsigned number) const { bench.dir.write("go_" + std::to_string(number), ""); }

  json_spirit::Array history(const std::string& id = std::string()) const;
  /// The record; null when there is none.
  json_spirit::Value record(const std::string& run_id) const;
  json_spirit::Object wait_ended(const std::string& run_id) const;
  json_spirit::Object entry(unsigned number) const;
  std::string state(unsigned number) const;
  std::string log_text(const std::string& run_id) const;
  std::vector<std::string> heard(const std::string& run_id) const;
  std::string activity_path(unsigned number) const;
  std::string database() const;

  Physical_Bench bench;
  kestrel::Module_Table modules;
  kestrel::Agent_Jobs::Settings settings;
  std::unique_ptr<kestrel::Agent_Jobs> jobs;

private:
  mutable std::mutex mutex_;
  std::vector<kestrel::Job_Notice> notices_;
};

std::string text_of(const json_spirit::Object& object, const std::string& key);
int64_t number_of(const json_spirit::Object& object, const std::string& key);
} // namespace kestrel_test

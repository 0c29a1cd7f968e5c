#pragma once

#include "agent/job_hooks.h"
#include "agent/job_scheduler.h"
#include "agent/job_store.h"
#include "agent/run_history.h"
#include "jobs/job_definition.h"
#include "json/value.h"

#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace kestrel
{
class Job_Definition_Loader;

/// A definition as a server or a file offers it.
struct Definition_Offer {
  std::string id;
  uint64_t revision = 0;
  bool enabled = true;
  std::string document; ///< as it is kept: a protection password is masked
};

/// A job that the agent knows, with all that follows from its definition.
/// Threads: a plain value.
struct Known_Job {
  Stored_Definition stored;
  Job_Definition_Ptr definition; ///< null when it was refused
  std::string refused;           ///< why; empty when it was not
  std::string name;
  std::string instance;
  std::vector<Timed_Schedule> schedules;
  bool on_demand = false;
  Run_Record last_run;
  bool removed = false;            ///< goes when its run has ended
  std::shared_ptr<Known_Job> next; ///< replaces it when its run has ended

  bool runs() const { return refused.empty() && stored.enabled && !removed; }
  /// Nothing would change with this definition.
  bool is(const Stored_Definition& other) const;
  /// Of a job without a run under way.
  Job_State resting_state() const;

  void replace(Known_Job other);
  void postpone(Known_Job other);
};

/// {"id","revision","enabled","document"}. False with `reason`; `offer.id` is set as far as it could be read.
[[nodiscard]] bool read_offer(const json_spirit::Value& value, Definition_Offer& offer, std::string& reason);
/// The documents of a directory's *.json files. Files that cannot be used are told as pairs of file and
/// reason; false when the directory cannot be read (one that does not exist is empty).
[[nodiscard]] bool read_offers(const std::string& directory, std::vector<Definition_Offer>& offers,
                               std::vector<std::pair<std::string, std::string>>& problems);

/// Fills what follows from `job.stored`; a definition that cannot be used gets its reason in `refused`. The
/// host of the definition is this one, whatever the document says: that of a cluster goes to all nodes, and
/// each records its backups in its own name.
void read_definition(const Job_Definition_Loader& loader, const std::string& host_uuid, Known_Job& job);

/// What a module has to hear when `job` is replaced by `other`; when it goes; and when it was enabled or
/// disabled.
Definition_Change change_of(const Known_Job& job, const Known_Job& other);
Definition_Change removal_of(const Known_Job& job);
Definition_Change enabling_of(const Known_Job& job);
} // namespace kestrel

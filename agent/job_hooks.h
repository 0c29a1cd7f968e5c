#pragma once

#include "agent/job_store.h"
#include "jobs/job_definition.h"

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <set>
#include <string>
#include <vector>

namespace kestrel
{
class Module_Table;

/// What became of a definition.
struct Definition_Change {
  std::string id;
  Job_Definition_Ptr before; ///< null: there was none, or it was refused
  Job_Definition_Ptr after;  ///< null: there is none, or it was refused
  bool was_on_demand = false;
  bool is_on_demand = false;
  bool changed = false;      ///< the document is another one
  bool removed = false;      ///< the job's record goes, too
  bool told_enabled = false; ///< the job's record has to say `enabled`
  bool enabled = true;
  std::string document; ///< of the definition as it is now, also of a refused one

  /// Somebody has to hear of it.
  bool matters() const;
};

/// Tells the module that runs a job what becomes of the job's definition, one definition after the other, in
/// the order of the changes, and without any lock of the agent's. One that
///
///   comes with an on-demand schedule:   setup_ondemand() of its job.
///   changes:                            update() of the old one's job, with the new one; then
///                                       setup_ondemand() of the new one's, if only that is on demand.
///   loses its on-demand schedule:       remove() of the old one's job, nothing else undoes the set-up. Then
///                                       update() as above. A new one that is refused loses it, too.
///   becomes another kind of job:        remove() of the old one's job; then as if the new one came.
///   goes:                               remove() of its job, if that ever had a record.
///   is enabled or disabled:             enable() or disable(): its record says so to other processes.
///
/// Whether the job or the schedule is enabled makes no difference. A definition whose document is the same
/// has not changed, whatever its revision: a restart, or a server that repeats itself, calls nothing.
///
/// Threads:   any. Whoever adds a change calls call() once it holds no lock; the hooks run on that thread. No
///            run of a job may begin while pending() says so, and none may be under way when a change of its
///            definition is added: a job's record has one owner.
/// Ownership: the module table is not owned and must outlive this object.
/// Errors:    a module that refuses or throws costs a line in the log, which names the definition and what
///            follows, and nothing else: the definition is in force. A failed set-up is made again when the
///            definition changes.
/// Crash:     definitions are stored before their modules hear of them. What was heard is stored, too, and the
///            next start adds the changes that are missing there: a module hears of each once at least, and of
///            several changes of a definition in one.
class Job_Hooks
{
public:
  explicit Job_Hooks(Module_Table& modules) : modules_(modules) {}
  Job_Hooks(const Job_Hooks&) = delete;
  Job_Hooks& operator=(const Job_Hooks&) = delete;

  /// Calls nothing yet. What nobody has to hear counts as told, for the next change follows on it.
  void add(Definition_Change change);
  /// How many changes were added so far.
  uint64_t added() const;
  /// Returns when everybody has heard of the first `until` changes, whichever thread tells them.
  void call(uint64_t until);
  /// Something is still to be told of the definition, or just being told.
  bool pending(const std::string& id) const;
  /// What was told since the last time, in that order.
  std::vector<Job_Store::Told> take_told();

private:
  void tell(const Definition_Change& change);
  bool set_up_needed(const Definition_Change& change, bool updated) const;

  Module_Table& modules_;
  mutable std::mutex mutex_; ///< guards what follows; nobody is called with it
  std::condition_variable told_one_;
  std::deque<Definition_Change> waiting_; ///< the first one stays until it has been told
  uint64_t added_ = 0;
  uint64_t told_ = 0;
  bool telling_ = false;
  std::set<std::string> failed_set_ups_;
  std::vector<Job_Store::Told> heard_; ///< not yet taken
};
} // namespace kestrel

#include "agent/job_hooks.h"

#include "agent/module_table.h"
#include "jobs/job.h"
#include "jobs/job_creator.h"

#include <ace/Log_Msg.h>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <unistd.h>
#include <utility>

namespace kestrel
{
namespace
{
typedef ACE_Intrusive_Auto_Ptr<Job> Job_Ptr;

/// Makes the definition's job and calls it. False, after a line in the log that ends with `consequence`, when
/// the module has no such job or refuses.
template <class Call>
bool ask_job(Module_Table& modules, const Job_Definition_Ptr& definition, const char* what,
             const char* consequence, Call call)
{
  std::string reason = "no module runs such jobs";
  try {
    Job_Creator* const creator = modules.job_creator(definition->type(), definition->subtype());
    errno = 0;
    const Job_Ptr job = creator ? creator->create(definition) : Job_Ptr();
    if (job.get() && call(*job) == 0)
      return true;
    if (job.get())
      reason = "the module refuses";
    else if (creator)
      reason = errno == ENOMEM ? "out of memory" : "the module makes no such job";
  } catch (const std::exception& problem) {
    reason = problem.what();
  }
  ACE_ERROR((LM_WARNING, "(%P|%t) Job_Hooks: %C of job %C (%C): %C; %C\n", what, definition->name().c_str(),
             definition->id().c_str(), reason.c_str(), consequence));
  return false;
}

bool has_record(const std::string& id)
{
  return ::access(Job_Activity_Path_Conf::path(id).c_str(), F_OK) == 0;
}

void remove_record(const std::string& id)
{
  const std::string path = Job_Activity_Path_Conf::path(id);
  if (::unlink(path.c_str()) != 0 && errno != ENOENT)
    ACE_ERROR((LM_WARNING, "(%P|%t) Job_Hooks: %C: %m\n", path.c_str()));
}

bool same_kind(Module_Table& modules, const Job_Definition& one, const Job_Definition& other)
{
  return one.type() == other.type() &&
         modules.job_creator(one.type(), one.subtype()) == modules.job_creator(other.type(), other.subtype());
}
} // namespace

bool Definition_Change::matters() const
{
  return removed || told_enabled || (changed && (!before.null() || is_on_demand));
}

void Job_Hooks::add(Definition_Change change)
{
  const std::lock_guard<std::mutex> guard(mutex_);
  const auto same = [&](const Definition_Change& each) { return each.id == change.id; };
  if (!change.matters() && std::none_of(waiting_.begin(), waiting_.end(), same)) {
    heard_.push_back({change.id, change.document, change.enabled, change.removed});
    return;
  }
  waiting_.push_back(std::move(change));
  ++added_;
}

uint64_t Job_Hooks::added() const
{
  const std::lock_guard<std::mutex> guard(mutex_);
  return added_;
}

bool Job_Hooks::pending(const std::string& id) const
{
  const std::lock_guard<std::mutex> guard(mutex_);
  return std::any_of(waiting_.begin(), waiting_.end(),
                     [&](const Definition_Change& each) { return each.id == id; });
}

void Job_Hooks::call(uint64_t until)
{
  std::unique_lock<std::mutex> lock(mutex_);
  while (told_ < until) {
    if (telling_) {
      told_one_.wait(lock);
      continue;
    }
    telling_ = true;
    const Definition_Change change = waiting_.front();
    lock.unlock();
    tell(change);
    lock.lock();
    waiting_.pop_front();
    heard_.push_back({change.id, change.document, change.enabled, change.removed});
    ++told_;
    telling_ = false;
    told_one_.notify_all();
  }
}

std::vector<Job_Store::Told> Job_Hooks::take_told()
{
  const std::lock_guard<std::mutex> guard(mutex_);
  return std::exchange(heard_, {});
}

bool Job_Hooks::set_up_needed(const Definition_Change& change, bool updated) const
{
  const std::lock_guard<std::mutex> guard(mutex_);
  return change.changed && change.is_on_demand && !change.after.null() &&
         (!updated || !change.was_on_demand || failed_set_ups_.count(change.id));
}

/// Each call has a job object of its own: it is one owner of the record at a time.
void Job_Hooks::tell(const Definition_Change& change)
{
  if (!change.matters())
    return;
  const bool goes_on = change.changed && !change.before.null() && !change.after.null() &&
                       same_kind(modules_, *change.before, *change.after);
  // A job that never had a record has nothing to undo, unless something was set up for it.
  const bool undone = !change.before.null() &&
                      (change.removed ? change.was_on_demand || has_record(change.id)
                                      : change.changed && ((change.was_on_demand && !change.is_on_demand) ||
                                                           (!change.after.null() && !goes_on)));
  if (undone)
    ask_job(modules_, change.before, "remove()", "the module may keep something of it",
            [](Job& job) { return job.remove(true); });
  if (goes_on)
    ask_job(modules_, change.before, "update()", "its next run has the new definition all the same",
            [&](Job& job) { return job.update(change.after); });
  if (undone || change.removed) {
    const std::lock_guard<std::mutex> guard(mutex_);
    failed_set_ups_.erase(change.id);
  }
  if (set_up_needed(change, goes_on)) {
    const bool done = ask_job(modules_, change.after, "setup_ondemand()",
                              "it can be run all the same; tried again when its definition changes",
                              [](Job& job) { return job.setup_ondemand(); });
    const std::lock_guard<std::mutex> guard(mutex_);
    if (done)
      failed_set_ups_.erase(change.id);
    else
      failed_set_ups_.insert(change.id);
  }
  if (change.removed)
    remove_record(change.id);
  else if (!change.after.null() && (change.told_enabled || (undone && !change.enabled)))
    ask_job(modules_, change.after, change.enabled ? "enable()" : "disable()",
            "the record of the job keeps its state",
            [&](Job& job) { return change.enabled ? job.enable() : job.disable(); });
}
} // namespace kestrel

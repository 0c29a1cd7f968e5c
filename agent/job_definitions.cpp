#include "agent/job_definitions.h"

#include "agent/module_table.h"
#include "base/durable_file.h"
#include "base/uri.h"
#include "base/uuid.h"
#include "jobs/job.h"
#include "jobs/job_creator.h"
#include "jobs/job_definition_loader.h"
#include "json/json_util.h"

#include <ace/Log_Msg.h>

#include <cerrno>
#include <filesystem>
#include <stdexcept>
#include <unistd.h>

namespace kestrel
{
namespace
{
typedef ACE_Intrusive_Auto_Ptr<Job> Job_Ptr;

const char password_key[] = "backup_protection_password";
const char mask[] = "***";

/// Puts the id into the document and hides its password: only whether there is one matters to a job.
std::string document_text(json_spirit::Object document, const std::string& id)
{
  const json_spirit::Value& present = find_value(document, "id");
  if (present.is_null())
    set_value(document, "id", id);
  else if (present.type() != json_spirit::str_type || present.get_str() != id)
    throw std::runtime_error("the document has another id");
  for (json_spirit::Pair& member : document)
    if (member.name_ == password_key && member.value_.type() == json_spirit::str_type &&
        !member.value_.get_str().empty())
      member.value_ = mask;
  return write_json(document);
}

/// The instance that a document is about: the name of its source, or the beginning of its first entry.
std::string instance_of(const json_spirit::Object& document)
{
  const json_spirit::Value& source = find_value(document, "source");
  if (source.type() != json_spirit::obj_type)
    return std::string();
  std::string name;
  if (optional(source.get_obj(), "name", name) && !name.empty())
    return name;
  json_spirit::Array entries;
  if (!optional(source.get_obj(), "entries", entries) || entries.empty())
    return std::string();
  URI entry;
  entry.path(entries.front().get_str(), true);
  return entry.segments().size() > 1 ? entry.segments()[1] : std::string();
}

Job_Ptr make_job(Module_Table& modules, const Known_Job& known)
{
  Job_Ptr job;
  if (known.definition.null())
    return job;
  Job_Creator* const creator = modules.job_creator(known.definition->type(), known.definition->subtype());
  try {
    if (creator)
      job = creator->create(known.definition);
  } catch (const std::exception& problem) {
    ACE_ERROR((LM_WARNING, "(%P|%t) make_job: no job for definition %C: %C\n", known.stored.id.c_str(),
               problem.what()));
  }
  return job;
}
} // namespace

bool Known_Job::is(const Stored_Definition& other) const
{
  const Stored_Definition& latest = next ? next->stored : stored;
  return !removed && latest.revision == other.revision && latest.enabled == other.enabled &&
         latest.document == other.document;
}

Job_State Known_Job::resting_state() const
{
  if (!refused.empty())
    return JOB_STATE_ERROR;
  if (!stored.enabled)
    return JOB_STATE_DISABLED;
  return last_run.ended_at != 0 ? last_run.state : JOB_STATE_IDLE;
}

void Known_Job::replace(Known_Job other)
{
  other.last_run = last_run;
  *this = std::move(other);
}

void Known_Job::postpone(Known_Job other)
{
  removed = false;
  next = std::make_shared<Known_Job>(std::move(other));
}

bool read_offer(const json_spirit::Value& value, Definition_Offer& offer, std::string& reason)
{
  try {
    const json_spirit::Object& object = value.get_obj();
    offer.id = required<std::string>(object, "id");
    if (!is_uuid(offer.id))
      throw std::runtime_error("the id is no uuid");
    offer.revision = required<uint64_t>(object, "revision");
    if (offer.revision > INT64_MAX)
      throw std::runtime_error("the revision is too large");
    optional(object, "enabled", offer.enabled);
    offer.document = document_text(required<json_spirit::Object>(object, "document"), offer.id);
    return true;
  } catch (const std::exception& problem) {
    reason = problem.what();
    return false;
  }
}

bool read_offers(const std::string& directory, std::vector<Definition_Offer>& offers,
                 std::vector<std::pair<std::string, std::string>>& problems)
{
  std::error_code failure;
  std::filesystem::directory_iterator entry(directory, failure);
  if (failure && failure != std::errc::no_such_file_or_directory) {
    problems.emplace_back(directory, "cannot read " + directory + ": " + failure.message());
    return false;
  }
  for (const std::filesystem::directory_iterator end; !failure && entry != end; entry.increment(failure)) {
    const std::string path = entry->path();
    if (entry->path().extension() != ".json")
      continue;
    std::string text;
    std::string reason;
    json_spirit::Value value;
    try {
      Definition_Offer offer;
      if (!read_whole_file(path, text, reason, Job_Definition_Loader::FILE_LIMIT_BYTES) ||
          !read_json(text, json_file_limits(), value, reason))
        throw std::runtime_error(reason);
      offer.id = required<std::string>(value.get_obj(), "id");
      if (!is_uuid(offer.id))
        throw std::runtime_error("the id is no uuid");
      offer.document = document_text(value.get_obj(), offer.id);
      offers.push_back(std::move(offer));
    } catch (const std::exception& problem) {
      problems.emplace_back(path, problem.what());
    }
  }
  if (failure && failure != std::errc::no_such_file_or_directory) {
    problems.emplace(problems.begin(), directory, "cannot read " + directory + ": " + failure.message());
    return false;
  }
  return true;
}

void read_definition(const Job_Definition_Loader& loader, Known_Job& job)
{
  json_spirit::Value value;
  std::string reason;
  if (read_json(job.stored.document, json_file_limits(), value, reason) &&
      value.type() == json_spirit::obj_type) {
    try {
      optional(value.get_obj(), "name", job.name);
      job.instance = instance_of(value.get_obj());
    } catch (const std::exception&) {
      // The loader tells what is wrong.
    }
  }
  Job_Definition_Ptr definition;
  if (loader.load(job.stored.document, definition, reason, Job_Definition_Loader::FILE_LIMIT_BYTES) &&
      read_schedules(*definition, job.schedules, job.on_demand, reason))
    job.definition = definition;
  else
    job.refused = reason;
}

void tell_enabled(Module_Table& modules, const Known_Job& known)
{
  const Job_Ptr job = make_job(modules, known);
  if (job.get() && (known.stored.enabled ? job->enable() : job->disable()) != 0)
    ACE_ERROR((LM_WARNING, "(%P|%t) tell_enabled: the record of job %C keeps its state\n",
               known.stored.id.c_str()));
}

void remove_traces(Module_Table& modules, const Known_Job& known)
{
  const std::string path = Job_Activity_Path_Conf::path(known.stored.id);
  // A job that never ran has nothing to undo.
  if (::access(path.c_str(), F_OK) != 0)
    return;
  {
    const Job_Ptr job = make_job(modules, known);
    if (job.get() && job->remove(true) != 0)
      ACE_ERROR((LM_WARNING, "(%P|%t) remove_traces: the module keeps something of job %C\n",
                 known.stored.id.c_str()));
  }
  if (::unlink(path.c_str()) != 0 && errno != ENOENT)
    ACE_ERROR((LM_WARNING, "(%P|%t) remove_traces: %C: %m\n", path.c_str()));
}
} // namespace kestrel

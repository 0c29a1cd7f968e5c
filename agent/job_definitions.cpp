#include "agent/job_definitions.h"

#include "base/durable_file.h"
#include "base/uri.h"
#include "base/uuid.h"
#include "jobs/job_definition_loader.h"
#include "json/json_util.h"

#include <filesystem>
#include <stdexcept>

namespace kestrel
{
namespace
{
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

void read_definition(const Job_Definition_Loader& loader, const std::string& host_uuid, Known_Job& job)
{
  json_spirit::Value value;
  std::string reason;
  std::string text = job.stored.document;
  if (read_json(job.stored.document, json_file_limits(), value, reason) &&
      value.type() == json_spirit::obj_type) {
    try {
      set_value(value.get_obj(), "host_id", host_uuid);
      text = write_json(value);
      optional(value.get_obj(), "name", job.name);
      job.instance = instance_of(value.get_obj());
    } catch (const std::exception&) {
      // The loader tells what is wrong.
    }
  }
  Job_Definition_Ptr definition;
  if (loader.load(text, definition, reason, Job_Definition_Loader::FILE_LIMIT_BYTES) &&
      read_schedules(*definition, job.schedules, job.on_demand, reason))
    job.definition = definition;
  else
    job.refused = reason;
}

Definition_Change change_of(const Known_Job& job, const Known_Job& other)
{
  Definition_Change change;
  change.id = other.stored.id;
  change.before = job.definition;
  change.after = other.definition;
  change.was_on_demand = job.on_demand;
  change.is_on_demand = other.on_demand;
  change.changed = job.stored.document != other.stored.document;
  change.told_enabled = job.stored.enabled != other.stored.enabled;
  change.enabled = other.stored.enabled;
  change.document = other.stored.document;
  return change;
}

Definition_Change removal_of(const Known_Job& job)
{
  Definition_Change change;
  change.id = job.stored.id;
  change.before = job.definition;
  change.was_on_demand = job.on_demand;
  change.changed = true;
  change.removed = true;
  return change;
}

Definition_Change enabling_of(const Known_Job& job)
{
  Definition_Change change = change_of(job, job);
  change.told_enabled = true;
  return change;
}
} // namespace kestrel

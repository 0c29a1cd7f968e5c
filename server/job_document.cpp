#include "agent/job_scheduler.h"
#include "base/ignore_result.h"
#include "base/uri.h"
#include "jobs/job_definition_loader.h"
#include "server/job_definitions.h"
#include "json/json_util.h"
#include "json/object_creator.h"
#include "json/yajl_handler.h"

namespace kestrel
{
namespace
{
using json_spirit::find_value;
using json_spirit::Object;
using json_spirit::Value;

class Any_Source : public Job_Source
{
public:
  int generate(yajl_gen_t*) const override { return 0; }
};

class Any_Options : public Job_Options
{
public:
  int generate(yajl_gen_t*) override { return 0; }
};

/// Stands in for the parsers of a module, which only its agent has: accepts every object.
template <class Base, class Any> class Any_Parser : public YAJL_Parser<Base>
{
public:
  Any_Parser() : YAJL_Parser<Base>(new Any) {}
};

template <class Base, class Any>
using Any_Creator =
    Object_Creator_Impl_T<Object_Creator_T<YAJL_Handler>, Any_Parser<Base, Any>>;

const Job_Definition_Loader& loader()
{
  static Any_Creator<Job_Source, Any_Source> source;
  static Any_Creator<Job_Options, Any_Options> options;
  static const Job_Definition_Loader loader = [] {
    Job_Definition_Loader made;
    made.add_parsers(JOB_DEFINITION_BACKUP, &source, &options);
    made.add_parsers(JOB_DEFINITION_RESTORE, &source, &options);
    return made;
  }();
  return loader;
}

std::string text_of(const Object& object, const char* key)
{
  const Value& value = find_value(object, key);
  return value.type() == json_spirit::str_type ? value.get_str() : std::string();
}

Object object_of(const Object& object, const char* key)
{
  const Value& value = find_value(object, key);
  return value.type() == json_spirit::obj_type ? value.get_obj() : Object();
}

/// The instance of the last entry, as the module takes it: "oscar/INSTANCE/...".
std::string backed_up_instance(const Object& source)
{
  const Value& entries = find_value(source, "entries");
  if (entries.type() != json_spirit::array_type || entries.get_array().empty() ||
      entries.get_array().back().type() != json_spirit::str_type)
    return std::string();
  URI entry;
  ignore_result(entry.path(entries.get_array().back().get_str(), true), "always 0");
  return entry.segments().size() > 1 ? entry.segments()[1] : std::string();
}

std::string restored_instance(const Object& source)
{
  const std::string other = text_of(object_of(source, "restore_as"), "database");
  return other.empty() ? text_of(source, "name") : other;
}

bool is_type(const Value& type, Job_Definition_Type wanted)
{
  return type.type() == json_spirit::str_type   ? type.get_str() == job_def_type_to_string(wanted)
         : type.type() == json_spirit::int_type ? type == Value(static_cast<int>(wanted))
                                                : false;
}
} // namespace

bool check_definition(const std::string& id, Object& document, std::string& error)
{
  Object whole = document;
  if (find_value(whole, "id").is_null())
    set_value(whole, "id", id);
  // Only whether there is one matters to a job.
  if (!text_of(whole, "backup_protection_password").empty())
    set_value(whole, "backup_protection_password", "***");
  std::string text;
  try {
    text = write_json(whole);
  } catch (const std::exception& failure) {
    error = failure.what();
    return false;
  }
  Job_Definition_Ptr definition;
  if (!loader().load(text, definition, error))
    return false;
  if (definition->id() != id) {
    error = "the document is of definition " + definition->id() + ", not of " + id;
    return false;
  }
  if (definition->type() != JOB_DEFINITION_BACKUP && definition->type() != JOB_DEFINITION_RESTORE) {
    error = "type: only backup and restore jobs can be defined";
    return false;
  }
  if (!definition->source()) {
    error = "source: is missing";
    return false;
  }
  // The agents would refuse it, long after whoever wrote it has gone, and run the job no more.
  std::vector<Timed_Schedule> schedules;
  bool on_demand = false;
  if (!read_schedules(*definition, schedules, on_demand, error))
    return false;
  document = std::move(whole);
  return true;
}

void read_cluster_job(const Object& document, Cluster_Job& job)
{
  const Object source = object_of(document, "source");
  const Value& type = find_value(document, "type");
  job.name = text_of(document, "name");
  job.virtual_address = text_of(document, "virtual_address");
  if (job.virtual_address.empty())
    job.virtual_address = text_of(source, "virtual_address");
  if (is_type(type, JOB_DEFINITION_BACKUP)) {
    job.kind = Cluster_Job::Kind::backup;
    job.instance = backed_up_instance(source);
  } else if (is_type(type, JOB_DEFINITION_RESTORE)) {
    job.kind = Cluster_Job::Kind::restore;
    job.instance = restored_instance(source);
  }
}
} // namespace kestrel

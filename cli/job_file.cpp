#include "cli/job_file.h"

#include "base/durable_file.h"
#include "base/uuid.h"
#include "cli/object_path.h"
#include "cli/served_json.h"
#include "storage/compression.h"
#include "json/json_util.h"

#include <boost/algorithm/string/predicate.hpp>

#include <algorithm>
#include <iostream>
#include <iterator>
#include <sstream>

namespace kestrel
{
namespace
{
const size_t MOST_FILE_BYTES = 16u << 20;

bool refuse(Console& console, const std::string& problem)
{
  console.fail("the job definition " + console.line().file + " is refused: " + problem);
  return false;
}

bool read_text(Console& console, std::string& text)
{
  std::string error;
  if (console.line().file == "-") {
    text.assign(std::istreambuf_iterator<char>(std::cin), std::istreambuf_iterator<char>());
    return text.size() <= MOST_FILE_BYTES || refuse(console, "it is larger than 16 MiB");
  }
  return read_whole_file(console.line().file, text, error, MOST_FILE_BYTES) || refuse(console, error);
}

/// The instance that a source names: by its id, else by the name in its first entry.
std::string instance_reference(const json_spirit::Object& source)
{
  const std::string id = text_in(source, "id");
  if (!id.empty())
    return id;
  const std::vector<std::string> entries = texts_in(source, "entries");
  const std::string prefix = "oscar/";
  Object_Path path;
  std::string error;
  if (entries.empty() || entries.front().compare(0, prefix.size(), prefix) != 0 ||
      !parse_object_path(entries.front().substr(prefix.size()), path, error))
    return text_in(source, "name");
  return path.instance;
}

/// The definition that the document replaces: the one with its id, or with its name when it has none.
bool find_former(Console& console, const json_spirit::Object& document, json_spirit::Object& former)
{
  std::vector<json_spirit::Object> jobs;
  if (!list_jobs(console, jobs))
    return false;
  const std::string id = text_in(document, "id");
  const std::string name = text_in(document, "name");
  for (const json_spirit::Object& job : jobs) {
    if (id.empty() ? name.empty() || job_name(job) != name : text_in(job, "id") != id)
      continue;
    if (!former.empty())
      return refuse(console,
                    "several jobs are called " + name + "; put the \"id\" of the one that is meant into it");
    former = job;
  }
  return true;
}

bool choose_hosts(Console& console, const json_spirit::Object& former, Job_To_Define& job)
{
  for (const std::string& reference : console.line().hosts) {
    Served_Host host;
    if (!console.find_host(reference, host))
      return false;
    if (std::find(job.host_uuids.begin(), job.host_uuids.end(), host.uuid) == job.host_uuids.end())
      job.host_uuids.push_back(host.uuid);
  }
  if (job.host_uuids.empty())
    job.host_uuids = texts_in(former, "hosts");
  if (!job.host_uuids.empty())
    return true;
  const std::string reference = instance_reference(object_in(job.document, "source"));
  if (reference.empty())
    return refuse(
        console,
        "its \"source\" names no instance, so nobody knows which host it is for; say it with --host");
  Known_Instance instance;
  if (!console.find_instance(reference, instance))
    return false;
  job.host_uuids.push_back(instance.host_uuid);
  return true;
}

/// The id of the instance on the first host that knows it, where the document has only its name. Without an
/// id the hosts would refuse the definition, and a former one of that name would run no more.
bool fill_source(Console& console, Job_To_Define& job)
{
  json_spirit::Object source = object_in(job.document, "source");
  const std::string name = instance_reference(source);
  std::vector<Served_Host> hosts;
  if (!text_in(source, "id").empty())
    return true;
  if (name.empty())
    return refuse(console, "its \"source\" names no instance");
  if (!console.hosts(hosts))
    return false;
  for (const std::string& uuid : job.host_uuids) {
    for (const Served_Host& host : hosts) {
      if (host.uuid != uuid)
        continue;
      for (const json_spirit::Value& instance : host.instances) {
        if (instance.type() != json_spirit::obj_type || text_in(instance.get_obj(), "name") != name)
          continue;
        set_value(source, "id", text_in(instance.get_obj(), "uuid"));
        if (text_in(source, "name").empty())
          set_value(source, "name", name);
        set_value(job.document, "source", source);
        return true;
      }
    }
  }
  return refuse(
      console,
      "none of its hosts has an instance " + name +
          "; 'kestrel instances' lists them, and \"id\" in \"source\" names one that is not there yet");
}

/// A pool may be given by its name, or be the default one.
bool fill_target(Console& console, Job_To_Define& job)
{
  json_spirit::Object target = object_in(job.document, "target");
  const std::string wanted = text_in(target, "id");
  Pool_Info pool;
  std::string error;
  if (!console.find_pool(wanted, pool, error))
    return refuse(console, error);
  set_value(target, "id", pool.pool_id);
  set_value(job.document, "target", target);
  return true;
}

bool check_form(Console& console, const json_spirit::Object& document)
{
  for (const char* key : {"source", "target", "options"}) {
    const json_spirit::Value& value = find_value(document, key);
    if (!value.is_null() && value.type() != json_spirit::obj_type)
      return refuse(console, std::string("\"") + key + "\" is no object");
  }
  for (const char* key : {"id", "uid"}) {
    const json_spirit::Value& value = find_value(document, key);
    if (!value.is_null() && (value.type() != json_spirit::str_type || !is_uuid(value.get_str())))
      return refuse(console, std::string("\"") + key + "\" is no uuid; leave it out to have it made");
  }
  if (job_kind(document).empty())
    return refuse(console, "it has no \"type\"; \"backup\" and \"restore\" are types");
  if (object_in(document, "source").empty())
    return refuse(console, "it has no \"source\"");
  const std::string problem = compression_problem(document);
  return problem.empty() || refuse(console, problem);
}

bool is_compression(const json_spirit::Value& value)
{
  if (value.type() != json_spirit::str_type)
    return false;
  const std::string& word = value.get_str();
  const Compression_Method method =
      compression_name_to_value(word.data(), static_cast<unsigned>(word.size()));
  return word == compression_value_to_name(method);
}
} // namespace

bool read_job_file(Console& console, Job_To_Define& job)
{
  std::string text;
  std::string error;
  json_spirit::Value value;
  if (!read_text(console, text))
    return false;
  if (!read_json(text, value, error))
    return refuse(console, error);
  if (value.type() != json_spirit::obj_type)
    return refuse(console, "it is no JSON object");
  job.document = value.get_obj();
  job.enabled = !console.line().disabled;
  json_spirit::Object former;
  if (!check_form(console, job.document) || !find_former(console, job.document, former) ||
      !choose_hosts(console, former, job) || !fill_target(console, job) || !fill_source(console, job))
    return false;
  if (text_in(job.document, "id").empty())
    set_value(job.document, "id", former.empty() ? make_uuid() : text_in(former, "id"));
  if (text_in(job.document, "uid").empty())
    set_value(job.document, "uid", console.identity_for({}).user_id);
  return true;
}

std::string compression_problem(const json_spirit::Object& document)
{
  const std::string kind = job_kind(document);
  if (kind != "export" && !boost::starts_with(kind, "backup"))
    return "";
  for (const json_spirit::Pair& option : object_in(document, "options")) {
    if (option.name_ != "compression" || is_compression(option.value_))
      continue;
    std::string words;
    for (Compression_Method method = COMPRESSION_NONE; is_compression_method(method); ++method)
      words += (words.empty() ? "" : ", ") + std::string(compression_value_to_name(method));
    return "\"compression\" in \"options\" is " + write_json(option.value_) + "; it may be one of " + words;
  }
  return "";
}
} // namespace kestrel

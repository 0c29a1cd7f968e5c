#include "jobs/job_definition_loader.h"

#include "base/descriptor.h"
#include "base/file_system.h"
#include "base/uuid.h"
#include "json/json_util.h"
#include "json/object_creator.h"
#include "json/value.h"
#include "json/yajl_handler.h"

#include <cerrno>
#include <climits>
#include <cstring>
#include <exception>
#include <fcntl.h>
#include <memory>
#include <set>
#include <stdexcept>
#include <sys/stat.h>
#include <utility>
#include <vector>

using json_spirit::Object;
using json_spirit::Pair;
using json_spirit::Value;

namespace kestrel
{
namespace
{
[[noreturn]] void refuse(const std::string& key, const std::string& reason)
{
  throw std::runtime_error("job definition, \"" + key + "\": " + reason);
}

/// Texts end at a NUL in half of the calls they are handed to, so a text with one inside means two different
/// things.
void refuse_nul(const Value& value, const std::string& key)
{
  if (value.type() == json_spirit::str_type) {
    if (value.get_str().find('\0') != std::string::npos) {
      refuse(key, "the text contains a NUL character");
    }
  } else if (value.type() == json_spirit::array_type) {
    for (const Value& member : value.get_array()) {
      refuse_nul(member, key);
    }
  } else if (value.type() == json_spirit::obj_type) {
    for (const Pair& member : value.get_obj()) {
      if (member.name_.find('\0') != std::string::npos) {
        refuse(key.empty() ? "top level" : key, "a key contains a NUL character");
      }
      refuse_nul(member.value_, key.empty() ? member.name_ : key + "." + member.name_);
    }
  }
}

void refuse_duplicates(const Object& object)
{
  std::set<std::string> seen;
  for (const Pair& member : object) {
    if (!seen.insert(member.name_).second) {
      refuse(member.name_, "the key stands there twice");
    }
  }
}

/// Null counts as absent. prefix is put before the key in error texts.
template <class T>
void take(const Object& object, const char* key, T& value, const char* wanted, const char* prefix = "")
{
  try {
    optional<T>(object, key, value);
  } catch (const std::exception&) {
    refuse(std::string(prefix) + key, std::string("must be ") + wanted);
  }
}

void take_text(const Object& object, const char* key, std::string& value, const char* prefix = "")
{
  take(object, key, value, "a text", prefix);
}

void take_flag(const Object& object, const char* key, bool& value)
{
  take(object, key, value, "true or false");
}

void take_number(const Object& object, const char* key, unsigned& value)
{
  take(object, key, value, "a whole number from 0 to 4294967295");
}

const Object* find_object(const Object& object, const char* key, const char* what)
{
  const Value& value = find_value(object, key);
  if (value.is_null()) {
    return nullptr;
  }
  if (value.type() != json_spirit::obj_type) {
    refuse(key, std::string("must be an object, ") + what);
  }
  return &value.get_obj();
}

std::string take_uuid(const Object& object, const char* key)
{
  std::string value;
  take_text(object, key, value);
  if (value.empty()) {
    refuse(key, "is missing");
  }
  if (!is_uuid(value)) {
    refuse(key, "is not a uuid");
  }
  return value;
}

/// A name that `find` knows, or any number: newer ones must survive.
template <class Enum>
Enum take_choice(const Object& object, const char* key, bool (*find)(const std::string&, Enum&),
                 std::string (*list_names)())
{
  const Value& value = find_value(object, key);
  if (value.type() == json_spirit::int_type) {
    const int64_t number = value.is_uint64() ? -1 : value.get_int64();
    if (number < 0 || number > INT_MAX) {
      refuse(key, "the number is out of range");
    }
    return static_cast<Enum>(number);
  }
  if (value.type() != json_spirit::str_type) {
    refuse(key, "must be a name or a number");
  }
  Enum chosen{};
  if (!find(value.get_str(), chosen)) {
    refuse(key, "unknown name; known are " + list_names());
  }
  return chosen;
}

Job_Target take_target(const Object& object)
{
  const Object* const target = find_object(object, "target", "the pool to use");
  if (!target) {
    refuse("target", "is missing");
  }
  std::string id, device_id;
  take_text(*target, "id", id, "target.");
  take_text(*target, "device_id", device_id, "target.");
  if (id.empty()) {
    refuse("target.id", "is missing or empty");
  }
  return Job_Target(id, device_id);
}

Rate_Limits take_rate_limits(const Object& object)
{
  uint64_t write = 0, read = 0;
  const char* const wanted = "a whole number of bytes per second";
  if (const Object* const limits = find_object(object, "rate_limits", "with \"write\" and \"read\"")) {
    take(*limits, "write", write, wanted, "rate_limits.");
    take(*limits, "read", read, wanted, "rate_limits.");
  }
  return Rate_Limits(write, read);
}

std::vector<Job_Schedule_Ptr> take_schedules(const Object& object)
{
  std::vector<Job_Schedule_Ptr> schedules;
  const Value& value = find_value(object, "schedules");
  if (value.is_null()) {
    return schedules;
  }
  if (value.type() != json_spirit::array_type) {
    refuse("schedules", "must be an array");
  }
  for (const Value& schedule : value.get_array()) {
    int type = 0;
    if (schedule.type() != json_spirit::obj_type || !optional(schedule.get_obj(), "type", type)) {
      refuse("schedules", "each schedule must be an object with a \"type\"");
    }
    schedules.push_back(Job_Schedule_Ptr(new Job_Schedule(type, write_json(schedule))));
  }
  return schedules;
}

void take_plain_fields(const Object& object, Job_Definition_Fields& fields)
{
  fields.id = take_uuid(object, "id");
  fields.uid = take_uuid(object, "uid");
  take_text(object, "name", fields.name);
  take_text(object, "agent", fields.agent);
  take_text(object, "host_id", fields.host_id);
  take_text(object, "rsrc_form", fields.rsrc_form);
  take_flag(object, "periodic", fields.periodic);
  take_number(object, "max_seconds_retry", fields.max_seconds_retry);
  take_number(object, "resumption_buffer_size", fields.resumption_buffer_size);
  take_flag(object, "server_side_dedup", fields.server_side_dedup);
  take_text(object, "backup_protection_password", fields.backup_protection_password);
  take_text(object, "precondition", fields.precondition);
  take_text(object, "pre_action", fields.pre_action);
  take_text(object, "post_action", fields.post_action);
  take_flag(object, "ignore_pre_action_failure", fields.ignore_pre_action_failure);
  take_flag(object, "ignore_post_action_failure", fields.ignore_post_action_failure);
  take_flag(object, "run_post_action_always", fields.run_post_action_always);
  fields.target = take_target(object);
  fields.rate_limits = take_rate_limits(object);
  fields.schedules = take_schedules(object);
}

/// The codes that the parsers of job documents share.
std::string parse_failure(int code, const std::string& error)
{
  switch (code) {
  case 3:
    return "a value stands outside of every object and array";
  case 7:
    return "a required key is missing (the log names it)";
  case 9:
    return "a value is of the wrong kind, or not in its place";
  case 0:
    return error;
  default:
    return "refused by its parser with code " + std::to_string(code);
  }
}

/// Runs a module's parser over a document. T is Job_Source or Job_Options.
template <class T>
ACE_Refcounted_Auto_Ptr<T, ACE_Thread_Mutex> parse_document(const char* key, const Value& value,
                                                            Object_Creator_T<YAJL_Handler>* creator)
{
  typedef ACE_Refcounted_Auto_Ptr<T, ACE_Thread_Mutex> Result;
  const auto destroy = [creator](YAJL_Handler* handler) { creator->destroy(handler); };
  const std::unique_ptr<YAJL_Handler, decltype(destroy)> handler(creator->create(), destroy);
  YAJL_Parser<T>* const parser = dynamic_cast<YAJL_Parser<T>*>(handler.get());
  if (!parser) {
    refuse(key, handler ? "its parser is of another kind" : "no memory for its parser");
  }
  std::string error;
  if (!dispatch_json(value, Json_Top::object, *handler, error)) {
    refuse(key, parse_failure(parser->error(), error));
  }
  const Result result = parser->result();
  if (result.null()) {
    refuse(key, "no memory");
  }
  return result;
}

/// Reads a whole file of at most limit_bytes.
std::string read_file(const std::string& path, std::size_t limit_bytes)
{
  File_System& files = file_system();
  const Auto_Closer<int, Auto_Handle_Trait> file(files.open(path.c_str(), O_RDONLY | O_CLOEXEC));
  std::string text;
  char block[64 * 1024];
  for (;;) {
    const ssize_t count = file.get() < 0 ? -1 : files.read(file.get(), block, sizeof block);
    if (count < 0 && errno == EINTR) {
      continue;
    }
    if (count < 0) {
      throw std::runtime_error(path + ": " + std::strerror(errno));
    }
    if (count == 0) {
      return text;
    }
    text.append(block, static_cast<std::size_t>(count));
    if (text.size() > limit_bytes) {
      throw std::runtime_error(path + ": longer than the limit of " + std::to_string(limit_bytes >> 20) +
                               " MiB");
    }
  }
}
} // namespace

void Job_Definition_Loader::add_parsers(Job_Definition_Type type, Parser_Creator* source,
                                        Parser_Creator* options)
{
  by_type_[type] = Parsers{source, options};
}

void Job_Definition_Loader::add_parsers(Job_Definition_Type type, Job_Definition_Subtype subtype,
                                        Parser_Creator* source, Parser_Creator* options)
{
  by_subtype_[std::make_pair(int(type), int(subtype))] = Parsers{source, options};
}

Job_Definition_Loader::Parsers Job_Definition_Loader::find_parsers(Job_Definition_Type type,
                                                                   Job_Definition_Subtype subtype) const
{
  const auto exact = by_subtype_.find(std::make_pair(int(type), int(subtype)));
  if (exact != by_subtype_.end()) {
    return exact->second;
  }
  const auto any = by_type_.find(type);
  return any != by_type_.end() ? any->second : Parsers();
}

void Job_Definition_Loader::load_documents(const Object& object, Job_Definition_Fields& fields) const
{
  const Parsers parsers = find_parsers(fields.type, fields.subtype);
  const Value& source = find_value(object, "source");
  const Value& options = find_value(object, "options");
  const std::string no_module =
      std::string("no module reads it for jobs of type ") + job_def_type_to_string(fields.type);
  if (!source.is_null()) {
    if (!parsers.source) {
      refuse("source", no_module);
    }
    fields.source = parse_document<Job_Source>("source", source, parsers.source);
  }
  if (!options.is_null() && !parsers.options) {
    refuse("options", no_module);
  }
  if (parsers.options) {
    // Without a document the options have the values that an empty one gives.
    fields.options = parse_document<Job_Options>("options", options.is_null() ? Value(Object()) : options,
                                                 parsers.options);
  }
}

bool Job_Definition_Loader::load(const std::string& text, Job_Definition_Ptr& out, std::string& error,
                                 std::size_t limit_bytes) const
{
  Json_Limits limits;
  limits.depth = DEPTH_LIMIT;
  limits.bytes = limit_bytes;
  Value value;
  std::string reason;
  if (!read_json(text, limits, value, reason)) {
    error = "job definition: " + reason;
    return false;
  }
  if (value.type() != json_spirit::obj_type) {
    error = "job definition: must be one JSON object";
    return false;
  }
  try {
    const Object& object = value.get_obj();
    refuse_duplicates(object);
    refuse_nul(value, std::string());
    Job_Definition_Fields fields;
    if (find_value(object, "type").is_null()) {
      refuse("type", "is missing");
    }
    fields.type = take_choice(object, "type", job_def_type_from_text, job_def_type_names);
    if (!find_value(object, "subtype").is_null()) {
      fields.subtype = take_choice(object, "subtype", job_def_subtype_from_text, job_def_subtype_names);
    }
    take_plain_fields(object, fields);
    load_documents(object, fields);
    out = Job_Definition_Ptr(new Job_Definition(std::move(fields)));
    return true;
  } catch (const std::exception& e) {
    error = e.what();
    return false;
  }
}

bool Job_Definition_Loader::load_file(const std::string& path, Job_Definition_Ptr& out,
                                      std::string& error) const
{
  std::string text;
  try {
    text = read_file(path, FILE_LIMIT_BYTES);
  } catch (const std::exception& e) {
    error = e.what();
    return false;
  }
  std::string reason;
  if (!load(text, out, reason, FILE_LIMIT_BYTES)) {
    error = path + ": " + reason;
    return false;
  }
  return true;
}
} // namespace kestrel

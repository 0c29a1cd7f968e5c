#include "jobs/job_definition_loader.h"

#include "json/json_util.h"
#include "json/yajl_gen.h"

#include <exception>

namespace kestrel
{
namespace
{
/// Stands for a protection password: only whether there is one matters, and it must not be kept in clear.
const char* const HIDDEN_PASSWORD = "***";

void write_text(YAJL_Gen& gen, const char* key, const std::string& value)
{
  if (!value.empty()) {
    gen.string(key).string(value);
  }
}

void write_flag(YAJL_Gen& gen, const char* key, bool value)
{
  if (value) {
    gen.string(key).boolean(true);
  }
}

void write_number(YAJL_Gen& gen, const char* key, uint64_t value)
{
  if (value != 0) {
    gen.string(key).number(value);
  }
}

void write_identity(YAJL_Gen& gen, const Job_Definition& def)
{
  write_text(gen, "id", def.id());
  write_text(gen, "uid", def.uid());
  write_text(gen, "name", def.name());
  write_text(gen, "agent", def.agent());
  write_text(gen, "host_id", def.host_id());
  gen.string("type").integer(def.type());
  gen.string("subtype").integer(def.subtype());
  write_text(gen, "rsrc_form", def.rsrc_form());
  gen.string("target").map_open();
  write_text(gen, "id", def.target().id());
  write_text(gen, "device_id", def.target().device_id());
  gen.map_close();
}

void write_settings(YAJL_Gen& gen, const Job_Definition& def)
{
  write_flag(gen, "periodic", def.periodic());
  write_number(gen, "max_seconds_retry", def.max_seconds_retry());
  write_number(gen, "resumption_buffer_size", def.resumption_buffer_size());
  const Rate_Limits& limits = def.rate_limits();
  if (limits.write_limit() != 0 || limits.read_limit() != 0) {
    gen.string("rate_limits").map_open();
    write_number(gen, "write", limits.write_limit());
    write_number(gen, "read", limits.read_limit());
    gen.map_close();
  }
  write_flag(gen, "server_side_dedup", def.server_side_dedup());
  if (!def.backup_protection_password().empty()) {
    write_text(gen, "backup_protection_password", HIDDEN_PASSWORD);
  }
  write_text(gen, "precondition", def.precondition());
  write_text(gen, "pre_action", def.pre_action());
  write_text(gen, "post_action", def.post_action());
  write_flag(gen, "ignore_pre_action_failure", def.ignore_pre_action_failure());
  write_flag(gen, "ignore_post_action_failure", def.ignore_post_action_failure());
  write_flag(gen, "run_post_action_always", def.run_post_action_always());
}

/// A module may write an optional object without members although its parser wants some in it: left out, the
/// document can be read back.
bool write_source(YAJL_Gen& gen, const Job_Source& source, std::string& error)
{
  Json_Generator generator;
  json_spirit::Value value;
  if (source.generate(generator.handle()) != 0 || !read_json(generator.text(), value, error) ||
      value.type() != json_spirit::obj_type) {
    error = "the source document cannot be written";
    return false;
  }
  json_spirit::Object written;
  for (json_spirit::Pair& member : value.get_obj()) {
    if (member.value_ != json_spirit::Object()) {
      written.push_back(std::move(member));
    }
  }
  gen.string("source").value(written);
  return true;
}

bool write_schedules(YAJL_Gen& gen, const Job_Definition& def, std::string& error)
{
  if (def.schedules().empty()) {
    return true;
  }
  gen.string("schedules").array_open();
  for (const Job_Schedule_Ptr& schedule : def.schedules()) {
    json_spirit::Value value;
    if (schedule->text().empty()) {
      value = json_spirit::Object{json_spirit::Pair("type", schedule->type())};
    } else if (!read_json(schedule->text(), value, error)) {
      return false;
    }
    gen.value(value);
  }
  gen.array_close();
  return true;
}
} // namespace

bool Job_Definition_Loader::generate(const Job_Definition& definition, std::string& text, std::string& error)
{
  try {
    Json_Generator generator(Json_Form::pretty);
    YAJL_Gen gen(generator.handle());
    gen.map_open();
    write_identity(gen, definition);
    const Job_Definition_Fields& fields = definition.fields();
    if (!fields.source.null() && !write_source(gen, *fields.source, error)) {
      return false;
    }
    if (!fields.options.null()) {
      gen.string("options");
      if (fields.options->generate(generator.handle()) != 0) {
        error = "the options document cannot be written";
        return false;
      }
    }
    write_settings(gen, definition);
    if (!write_schedules(gen, definition, error)) {
      return false;
    }
    gen.map_close();
    if (!gen.ok()) {
      error = "the definition cannot be written as JSON";
      return false;
    }
    text = generator.text();
    return true;
  } catch (const std::exception& e) {
    error = e.what();
    return false;
  }
}
} // namespace kestrel

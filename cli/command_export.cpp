#include "cli/definition_builder.h"
#include "cli/export_output.h"
#include "cli/pool_choice.h"
#include "cli/session.h"
#include "cli/text_format.h"

#include "json/json_util.h"

#include <algorithm>

namespace kestrel
{
namespace
{
/// Checks the objects and completes them: all are of one instance, whose one database has its name.
bool read_objects(Command_Context& context, Known_Instance& instance, std::vector<Object_Path>& objects)
{
  for (const std::string& text : context.line().names) {
    Object_Path object;
    std::string error;
    if (!parse_object_path(text, object, error)) {
      context.fail(error, EXIT_CODE_USAGE);
      return false;
    }
    if (objects.empty() && !context.find_instance(object.instance, instance))
      return false;
    if (!complete_object(instance.name, object, error)) {
      context.fail(error, EXIT_CODE_USAGE);
      return false;
    }
    const std::string whole = object_text(object);
    if (std::none_of(objects.begin(), objects.end(),
                     [&whole](const Object_Path& other) { return object_text(other) == whole; }))
      objects.push_back(object);
  }
  return true;
}

std::string objects_text(const std::vector<Object_Path>& objects)
{
  return objects.size() == 1 ? object_text(objects.front()) : std::to_string(objects.size()) + " objects";
}

/// The newest export of the instance is the one that was just committed: jobs on one instance exclude each
/// other.
int show_committed(Command_Context& context, const std::string& resource_uuid, const std::string& what,
                   const Job_Report& job)
{
  std::vector<Export_Entry> found;
  std::string error;
  if (!last_committed_export(resource_uuid, found, error))
    return context.fail("the export of " + what + " is done, but cannot be shown: " + error);
  if (found.empty())
    return context.fail("the export of " + what + " is done, but the catalog does not show it");
  const Export_Entry& entry = found.front();
  json_spirit::Object json = json_of_export(context, entry);
  set_value(json, "backup", entry.id);
  set_value(json, "duration_msec", job.duration_msec);
  set_value(json, "log", job.run.log_path);
  context.result(json, "Export " + entry.id + " of " + what + ": " + format_bytes(entry.size) +
                           ", stored as " + format_bytes(entry.stored_size) + " in " +
                           format_duration(job.duration_msec / 1000) + ".\n");
  return EXIT_CODE_DONE;
}
} // namespace

int run_export(Command_Context& context)
{
  const Command_Line& line = context.line();
  Known_Instance instance;
  Export_Request request;
  Pool_Info pool;
  std::vector<Object_Path>& objects = request.objects;
  if (!read_objects(context, instance, objects) || !choose_target_pool(context, pool))
    return context.last_code();
  const std::string& name = instance.name;
  if (!instance.has_account)
    return context.fail("there is no account for " + name + "; store one with: kestrel login " + name +
                        " --user USER");

  request.instance_name = name;
  request.instance_uuid = instance.uuid;
  request.pool_id = pool.pool_id;
  request.compression = line.compression;
  request.compression_level = line.compression_level.value_or(1);
  request.rate_limit_bytes_per_second = line.rate_limit_bytes_per_second;
  const std::string what = objects_text(objects);
  context.note("Exporting " + what + " to pool " + pool.name + " (" + line.compression + ")");
  const Job_Report job =
      context.run_document(instance, export_definition(context.identity_for(instance), request),
                           {name, "export of " + what, "nothing of it was kept"});
  return job.exit_code == EXIT_CODE_DONE ? show_committed(context, request.instance_uuid, what, job)
                                         : job.exit_code;
}
} // namespace kestrel

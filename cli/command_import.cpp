#include "cli/backup_output.h"
#include "cli/confirmation.h"
#include "cli/definition_builder.h"
#include "cli/export_output.h"
#include "cli/pool_choice.h"
#include "cli/session.h"
#include "cli/text_format.h"

#include "json/json_util.h"

#include <algorithm>
#include <cstdio>

namespace kestrel
{
namespace
{
struct Import_Plan {
  Export_Entry entry;
  Export_File file; ///< that holds the object
  Object_Path original;
  Object_Path target;
  Known_Instance instance; ///< that it goes to
  std::string pool_override;
};

std::string list_of_objects(const Export_Entry& entry)
{
  std::string text;
  for (const Export_File& file : entry.files)
    text += (text.empty() ? "" : ", ") + object_text(object_of(entry, file));
  return text;
}

bool same_object(const Object_Path& path, const Export_File& file)
{
  return path.database == file.database && path.schema == file.schema && path.table == file.table;
}

/// The object to import: the one that --original names, else the only one.
bool choose_original(Command_Context& context, Import_Plan& plan)
{
  const std::string& wanted = context.line().original;
  if (wanted.empty()) {
    if (plan.entry.files.size() != 1) {
      context.fail("export " + plan.entry.id + " holds several objects; say which one with --original: " +
                       list_of_objects(plan.entry),
                   EXIT_CODE_USAGE);
      return false;
    }
    plan.file = plan.entry.files.front();
    plan.original = object_of(plan.entry, plan.file);
    return true;
  }
  std::string error;
  if (!parse_object_path(wanted, plan.original, error)) {
    context.fail(error, EXIT_CODE_USAGE);
    return false;
  }
  if (plan.original.database.empty())
    plan.original.database = plan.original.instance;
  const auto found =
      std::find_if(plan.entry.files.begin(), plan.entry.files.end(),
                   [&plan](const Export_File& file) { return same_object(plan.original, file); });
  if (found == plan.entry.files.end() || plan.original.instance != plan.entry.instance) {
    context.fail("export " + plan.entry.id + " does not hold " + wanted +
                     " as an object of its own; it holds: " + list_of_objects(plan.entry),
                 EXIT_CODE_USAGE);
    return false;
  }
  plan.file = *found;
  return true;
}

/// Where it goes: --as, whose missing names are those of the original.
bool choose_target(Command_Context& context, Import_Plan& plan)
{
  const std::string& wanted = context.line().target;
  std::string error;
  plan.target = {plan.original.instance, "", plan.original.schema, plan.original.table};
  if (!wanted.empty() && !parse_object_path(wanted, plan.target, error)) {
    context.fail(error, EXIT_CODE_USAGE);
    return false;
  }
  if (!context.find_instance(plan.target.instance, plan.instance))
    return false;
  if (!complete_object(plan.instance.name, plan.target, error)) {
    context.fail(error, EXIT_CODE_USAGE);
    return false;
  }
  if (plan.target.schema.empty())
    plan.target.schema = plan.original.schema;
  if (plan.target.table.empty())
    plan.target.table = plan.original.table;
  if (std::string(object_level(plan.target)) == object_level(plan.original))
    return true;
  context.fail("a " + std::string(object_level(plan.original)) + " cannot be imported as a " +
                   object_level(plan.target) + "; leave names off the end of --as",
               EXIT_CODE_USAGE);
  return false;
}

std::string what_it_replaces(const Object_Path& target)
{
  const std::string text = object_text(target);
  const std::string level = object_level(target);
  if (level == "database")
    return "every schema that it holds takes the place of the schema of that name in " + target.instance;
  if (level == "schema")
    return "it takes the place of the schema " + text + " and of everything in it";
  return "it takes the place of the table " + text +
         " and of its rows; the schema is made when it is missing";
}

std::string describe(Command_Context& context, const Import_Plan& plan)
{
  const std::string name = object_text(plan.original);
  std::string tablespaces;
  for (const std::string& tablespace : plan.entry.tablespaces)
    tablespaces += (tablespaces.empty() ? "" : ", ") + tablespace;
  std::string text = "Import of the " + std::string(object_level(plan.original)) + " " + name + " as of " +
                     format_time(plan.entry.start_time) + ":\n";
  int step = 1;
  if (!tablespaces.empty())
    text += "  " + std::to_string(step++) + ". tablespaces that " + plan.target.instance +
            " lacks are created: " + tablespaces + "\n";
  text += "  " + std::to_string(step++) + ". the dump file (" + format_bytes(plan.file.size) +
          ") is read from pool " +
          pool_name(context, plan.pool_override.empty() ? plan.entry.pool_uuid : plan.pool_override) + "\n";
  text += "  " + std::to_string(step) + ". " + what_it_replaces(plan.target) + "; " + plan.target.instance +
          " stays up\n";
  return text;
}

bool make_plan(Command_Context& context, Import_Plan& plan)
{
  if (!find_export(context, context.line().names.front(), plan.entry))
    return false;
  if (!plan.entry.available) {
    context.fail("export " + plan.entry.id + " cannot be used: " + plan.entry.state_reason +
                 "; once that is repaired: kestrel verify " + plan.entry.id);
    return false;
  }
  return choose_original(context, plan) && choose_target(context, plan) &&
         choose_source_pool(context, plan.pool_override);
}

Import_Request request_of(const Import_Plan& plan)
{
  Import_Request request;
  request.target_uuid = plan.instance.uuid;
  request.resource_uuid = plan.entry.resource_uuid;
  request.export_id = plan.entry.id;
  request.pool_id = plan.entry.pool_uuid;
  request.pool_override = plan.pool_override;
  request.original = plan.original;
  request.dump_file = plan.file.path;
  request.target = plan.target;
  return request;
}
} // namespace

int run_import(Command_Context& context)
{
  Import_Plan plan;
  if (!make_plan(context, plan))
    return context.last_code();
  if (!context.line().json)
    std::fputs(describe(context, plan).c_str(), stderr);
  const int answer = ask_to_go_on(context, "import");
  if (answer != EXIT_CODE_DONE)
    return answer;

  const std::string name = object_text(plan.target);
  const Job_Report job = context.run_document(
      plan.instance, import_definition(context.identity_for(plan.instance), request_of(plan)),
      {plan.target.instance, "import of " + name,
       "look at " + name + " before anybody works with it, or import again"});
  if (job.exit_code != EXIT_CODE_DONE)
    return job.exit_code;
  json_spirit::Object json;
  set_value(json, "backup", plan.entry.id);
  set_value(json, "instance", plan.target.instance);
  set_value(json, "original", object_text(plan.original));
  set_value(json, "object", name);
  set_value(json, "size", plan.file.size);
  set_value(json, "duration_msec", job.duration_msec);
  set_value(json, "log", job.run.log_path);
  context.result(json, "The " + std::string(object_level(plan.target)) + " " + name +
                           " is imported from export " + plan.entry.id + ": " + format_bytes(plan.file.size) +
                           " in " + format_duration(job.duration_msec / 1000) + ".\n");
  return EXIT_CODE_DONE;
}
} // namespace kestrel

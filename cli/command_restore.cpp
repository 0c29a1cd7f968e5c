#include "base/durable_file.h"
#include "cli/backup_output.h"
#include "cli/confirmation.h"
#include "cli/definition_builder.h"
#include "cli/job_command.h"
#include "cli/job_file.h"
#include "cli/session.h"
#include "cli/text_format.h"

#include "json/json_util.h"

#include <cstdio>

namespace kestrel
{
namespace
{
struct Restore_Plan {
  Backup_Entry backup;
  std::vector<Backup_Entry> sequence;
  Known_Instance instance;
  std::string pool_override;
  uint64_t bytes = 0;
};

/// A backup goes back into its own instance, on whichever node of a cluster; only where that one is not known
/// any more is --instance the place to restore to. Otherwise a slip in the name would overwrite another one.
bool find_target_instance(Command_Context& context, const Backup_Entry& backup, Known_Instance& instance)
{
  const std::string& wanted = context.line().instance;
  if (wanted.empty())
    return context.find_instance_of(backup.resource_uuid, instance);
  if (!context.find_instance(wanted, instance))
    return false;
  std::string its_name;
  if (!context.knows_instance(backup.resource_uuid, its_name) || its_name == instance.name)
    return true;
  context.fail("backup " + backup.id + " is one of " + its_name + ", not of " + instance.name +
                   "; nothing was changed",
               EXIT_CODE_USAGE);
  return false;
}

/// A chain of which a file is missing must not cost the instance the data that it holds.
bool files_are_there(Command_Context& context, const Restore_Plan& plan)
{
  for (const Backup_Entry& member : plan.sequence) {
    std::string problem;
    if (context.check_stored(member, plan.pool_override.empty() ? member.pool_uuid : plan.pool_override,
                             problem))
      continue;
    context.fail("backup " + plan.backup.id + " cannot be restored: of backup " + member.id + ", " + problem +
                 "; nothing was changed");
    return false;
  }
  return true;
}

bool make_plan(Command_Context& context, Restore_Plan& plan)
{
  std::string problem;
  std::string error;
  if (!find_backup(context, context.line().names.front(), plan.backup) ||
      !find_target_instance(context, plan.backup, plan.instance))
    return false;
  if (!backup_sequence(plan.backup, plan.sequence, problem, error)) {
    context.fail("backup " + plan.backup.id + " cannot be restored: " + error);
    return false;
  }
  if (plan.sequence.empty()) {
    context.fail("backup " + plan.backup.id + " cannot be restored: " + problem +
                 "; kestrel backups shows what can be restored");
    return false;
  }
  for (const Backup_Entry& member : plan.sequence)
    plan.bytes += member.size;
  if (!context.line().pool.empty()) {
    Pool_Info pool;
    if (!context.find_pool(context.line().pool, pool, error)) {
      context.fail("the pool " + context.line().pool + " cannot be used: " + error);
      return false;
    }
    plan.pool_override = pool.pool_id;
  }
  return files_are_there(context, plan);
}

std::string describe(Command_Context& context, const Restore_Plan& plan)
{
  const std::string& name = plan.instance.name;
  std::string text = "Restore of " + name + " to the state of " + format_time(plan.backup.end_time) + ":\n";
  text += "  1. the instance " + name + " is stopped; who works in it is cut off\n";
  int step = 2;
  for (const Backup_Entry& member : plan.sequence)
    text += "  " + std::to_string(step++) + ". backup " + member.id + " (" + member.level + ", " +
            format_bytes(member.size) + ") is read from pool " +
            pool_name(context, plan.pool_override.empty() ? member.pool_uuid : plan.pool_override) + "\n";
  if (plan.sequence.size() > 1)
    text += "     that is " + format_bytes(plan.bytes) + " from " + std::to_string(plan.sequence.size()) +
            " backups\n";
  text += "  " + std::to_string(step) + ". this data takes the place of what " + name + " holds now, and " +
          name + " is started\n";
  return text;
}

} // namespace

int run_restore(Command_Context& context)
{
  Restore_Plan plan;
  if (!make_plan(context, plan))
    return context.last_code();
  if (!context.line().json)
    std::fputs(describe(context, plan).c_str(), stderr);
  const int answer = ask_to_go_on(context, "restore");
  if (answer != EXIT_CODE_DONE)
    return answer;

  Restore_Request request;
  request.instance_name = plan.instance.name;
  request.resource_uuid = plan.backup.resource_uuid;
  request.backup_id = plan.backup.id;
  request.pool_id = plan.backup.pool_uuid;
  request.pool_override = plan.pool_override;
  const Job_Report job = context.run_document(
      plan.instance, restore_definition(context.identity_for(plan.instance), request),
      {request.instance_name, "restore of " + request.instance_name,
       "look at the instance's data before anybody works with it, or restore again",
       plan.sequence.size() > 1
           ? "the instance may hold the data of an earlier backup of the chain: restore again, or another one"
           : ""});
  if (job.exit_code != EXIT_CODE_DONE)
    return job.exit_code;

  json_spirit::Object json;
  set_value(json, "backup", plan.backup.id);
  set_value(json, "instance", request.instance_name);
  set_value(json, "sets", static_cast<uint64_t>(plan.sequence.size()));
  json_spirit::Array chain;
  for (const Backup_Entry& member : plan.sequence)
    chain.push_back(member.id);
  set_value(json, "chain", chain);
  set_value(json, "size", plan.bytes);
  set_value(json, "duration_msec", job.duration_msec);
  set_value(json, "log", job.run.log_path);
  context.result(json, request.instance_name + " is restored from backup " + plan.backup.id + ": " +
                           format_bytes(plan.bytes) + " in " + format_duration(job.duration_msec / 1000) +
                           ".\n");
  return EXIT_CODE_DONE;
}

namespace
{
bool check_compression(const std::string& text, std::string& error)
{
  json_spirit::Value document;
  if (!read_json(text, document, error))
    return false;
  error = document.type() == json_spirit::obj_type ? compression_problem(document.get_obj()) : "";
  return error.empty();
}
} // namespace

int run_definition_file(Session& session)
{
  const std::string& file = session.line().file;
  Job_Definition_Ptr definition;
  std::string text;
  std::string error;
  if (!read_whole_file(file == "-" ? "/dev/stdin" : file, text, error,
                       Job_Definition_Loader::FILE_LIMIT_BYTES) ||
      !session.host().loader().load(text, definition, error, Job_Definition_Loader::FILE_LIMIT_BYTES) ||
      !check_compression(text, error))
    return session.fail("the job definition " + file + " is refused: " + error);
  const std::string name = definition->name().empty() ? definition->id() : definition->name();
  const Job_Report job =
      run_job(session, definition, {name, "job " + name, "the job log says how far it came", ""});
  if (job.exit_code != EXIT_CODE_DONE)
    return job.exit_code;
  json_spirit::Object json;
  set_value(json, "definition", definition->id());
  set_value(json, "name", definition->name());
  set_value(json, "state", job_state_text(job.run.state));
  set_value(json, "duration_msec", job.duration_msec);
  set_value(json, "log", job.run.log_path);
  session.result(json, "Job " + name + " is done in " + format_duration(job.duration_msec / 1000) + ".\n");
  return EXIT_CODE_DONE;
}
} // namespace kestrel

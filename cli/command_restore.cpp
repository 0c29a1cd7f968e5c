#include "cli/backup_output.h"
#include "cli/confirmation.h"
#include "cli/definition_builder.h"
#include "cli/job_command.h"
#include "cli/text_format.h"

#include "agent/backup_verifier.h"
#include "json/json_util.h"

#include <cstdio>

namespace kestrel
{
namespace
{
struct Restore_Plan {
  Backup_Entry backup;
  std::vector<Backup_Entry> sequence;
  Instance_Registry::Entry instance;
  std::string pool_override;
  uint64_t bytes = 0;
};

bool find_target_instance(Session& session, const Backup_Entry& backup, Instance_Registry::Entry& instance)
{
  const std::string& wanted = session.line().instance;
  return session.find_instance(wanted.empty() ? session.instance_name(backup.resource_uuid) : wanted,
                               instance);
}

/// A chain of which a file is missing must not cost the instance the data that it holds.
bool files_are_there(Session& session, const Restore_Plan& plan)
{
  for (const Backup_Entry& member : plan.sequence) {
    const Verification file =
        probe_backup(member, plan.pool_override.empty() ? member.pool_uuid : plan.pool_override);
    if (file.outcome == Verification::Outcome::good)
      continue;
    session.fail("backup " + plan.backup.id + " cannot be restored: of backup " + member.id + ", " +
                 file.problem + "; nothing was changed");
    return false;
  }
  return true;
}

bool make_plan(Session& session, Restore_Plan& plan)
{
  std::string problem;
  std::string error;
  if (!find_backup(session, session.line().names.front(), plan.backup) ||
      !find_target_instance(session, plan.backup, plan.instance))
    return false;
  if (!backup_sequence(plan.backup, plan.sequence, problem, error)) {
    session.fail("backup " + plan.backup.id + " cannot be restored: " + error);
    return false;
  }
  if (plan.sequence.empty()) {
    session.fail("backup " + plan.backup.id + " cannot be restored: " + problem +
                 "; kestrel backups shows what can be restored");
    return false;
  }
  for (const Backup_Entry& member : plan.sequence)
    plan.bytes += member.size;
  if (!session.line().pool.empty()) {
    Pool_Info pool;
    if (!session.host().pools().find(session.line().pool, pool, error)) {
      session.fail("the pool " + session.line().pool + " cannot be used: " + error);
      return false;
    }
    plan.pool_override = pool.pool_id;
  }
  return files_are_there(session, plan);
}

std::string describe(Session& session, const Restore_Plan& plan)
{
  const std::string& name = plan.instance.instance.name;
  std::string text = "Restore of " + name + " to the state of " + format_time(plan.backup.end_time) + ":\n";
  text += "  1. the instance " + name + " is stopped; who works in it is cut off\n";
  int step = 2;
  for (const Backup_Entry& member : plan.sequence)
    text += "  " + std::to_string(step++) + ". backup " + member.id + " (" + member.level + ", " +
            format_bytes(member.size) + ") is read from pool " +
            pool_name(session, plan.pool_override.empty() ? member.pool_uuid : plan.pool_override) + "\n";
  if (plan.sequence.size() > 1)
    text += "     that is " + format_bytes(plan.bytes) + " from " + std::to_string(plan.sequence.size()) +
            " backups\n";
  text += "  " + std::to_string(step) + ". this data takes the place of what " + name + " holds now, and " +
          name + " is started\n";
  return text;
}

} // namespace

int run_restore(Session& session)
{
  Restore_Plan plan;
  if (!make_plan(session, plan))
    return EXIT_CODE_FAILED;
  if (!session.line().json)
    std::fputs(describe(session, plan).c_str(), stderr);
  const int answer = ask_to_go_on(session, "restore");
  if (answer != EXIT_CODE_DONE)
    return answer;

  Restore_Request request;
  request.instance_name = plan.instance.instance.name;
  request.resource_uuid = plan.backup.resource_uuid;
  request.backup_id = plan.backup.id;
  request.pool_id = plan.backup.pool_uuid;
  request.pool_override = plan.pool_override;
  Job_Definition_Ptr definition;
  std::string error;
  if (!session.host().loader().load(restore_definition(session.host().identity(), request), definition,
                                    error))
    return session.fail("the restore of " + request.instance_name + " cannot be defined: " + error);
  const Job_Report job = run_job(
      session, definition,
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
  session.result(json, request.instance_name + " is restored from backup " + plan.backup.id + ": " +
                           format_bytes(plan.bytes) + " in " + format_duration(job.duration_msec / 1000) +
                           ".\n");
  return EXIT_CODE_DONE;
}

int run_definition_file(Session& session)
{
  const std::string& file = session.line().file;
  Job_Definition_Ptr definition;
  std::string error;
  if (!session.host().loader().load_file(file == "-" ? "/dev/stdin" : file, definition, error))
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

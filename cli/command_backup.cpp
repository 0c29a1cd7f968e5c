#include "cli/backup_output.h"
#include "cli/definition_builder.h"
#include "cli/pool_choice.h"
#include "cli/session.h"
#include "cli/text_format.h"

#include "agent/backup_catalog.h"
#include "json/json_util.h"

namespace kestrel
{
namespace
{
/// The set that the job has just committed: jobs on one instance exclude each other until then.
bool committed_backup(const std::string& resource_uuid, Backup_Entry& backup, std::string& error)
{
  std::vector<Backup_Entry> last;
  if (!last_committed_backup(resource_uuid, last, error))
    return false;
  error = "the catalog does not hold it";
  if (last.empty())
    return false;
  backup = last.front();
  return true;
}

/// What the user must know of a backup that is not what was asked for, or of no use.
void warn(Command_Context& context, const Backup_Entry& backup, const std::string& requested_level,
          const std::string& fallback_reason)
{
  if (!fallback_reason.empty())
    context.note("A full backup was made in place of the " + requested_level + " one: " + fallback_reason +
                 ".");
  if (backup.chain_length == 0)
    context.note("This backup cannot be restored: " + backup.chain_problem +
                 ". Make a full one: kestrel backup INSTANCE --level full");
}

int show_result(Command_Context& context, const std::string& name, const std::string& pool,
                const Job_Report& job, const Backup_Entry& backup)
{
  const std::string& requested_level = context.line().level;
  const std::string fallback_reason = backup.level == requested_level ? "" : context.fallback_reason(job.run);
  warn(context, backup, requested_level, fallback_reason);
  json_spirit::Object json;
  set_value(json, "backup", backup.id);
  set_value(json, "instance", name);
  set_value(json, "level", backup.level);
  set_value(json, "requested_level", requested_level);
  set_value(json, "fallback_reason", fallback_reason);
  set_value(json, "parent", parent_of(backup));
  set_value(json, "state", state_word(backup));
  set_value(json, "pool", pool);
  set_value(json, "file", backup.file);
  set_value(json, "size", backup.size);
  set_value(json, "stored_size", backup.stored_size);
  set_value(json, "duration_msec", job.duration_msec);
  set_value(json, "log", job.run.log_path);
  const std::string level =
      backup.level == requested_level ? backup.level : backup.level + ", not " + requested_level;
  const std::string on = backup.predecessor_id.empty() ? "" : " on " + backup.predecessor_id;
  context.result(json, "Backup " + backup.id + " of " + name + " (" + level + on + "): " +
                           format_bytes(backup.size) + ", stored as " + format_bytes(backup.stored_size) +
                           " in " + format_duration(job.duration_msec / 1000) + ".\n");
  return EXIT_CODE_DONE;
}
} // namespace

int run_backup(Command_Context& context)
{
  const Command_Line& line = context.line();
  Known_Instance instance;
  Pool_Info pool;
  if (!context.find_instance(line.instance, instance) || !choose_target_pool(context, pool))
    return EXIT_CODE_FAILED;
  const std::string& name = instance.name;
  if (!instance.has_account)
    return context.fail("there is no account for " + name + "; store one with: kestrel login " + name +
                        " --user USER");

  Backup_Request request;
  request.instance_name = name;
  request.instance_uuid = instance.uuid;
  request.pool_id = pool.pool_id;
  request.level = line.level;
  request.compression = line.compression;
  request.compression_level = line.compression_level.value_or(1);
  request.rate_limit_bytes_per_second = line.rate_limit_bytes_per_second;

  context.note("Backing " + name + " up to pool " + pool.name + " (" + line.level + ", " + line.compression +
               ")");
  const Job_Report job =
      context.run_document(instance, backup_definition(context.identity_for(instance), request),
                           {name, "backup of " + name, "nothing of it was kept", ""});
  if (job.exit_code != EXIT_CODE_DONE)
    return job.exit_code;

  Backup_Entry backup;
  std::string error;
  if (!committed_backup(instance.uuid, backup, error))
    return context.fail("the backup of " + name + " is done, but cannot be shown: " + error);
  return show_result(context, name, pool.name, job, backup);
}
} // namespace kestrel

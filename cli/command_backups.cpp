#include "cli/backup_output.h"
#include "cli/session.h"
#include "cli/text_format.h"

#include "json/json_util.h"

namespace kestrel
{
namespace
{
std::string chain_text(const Backup_Entry& backup, json_spirit::Array& ids)
{
  std::vector<Backup_Entry> sequence;
  std::string error;
  if (!backup_sequence(backup.id, sequence, error))
    return "cannot be read: " + error;
  if (sequence.empty())
    return "broken: it cannot be restored";
  std::string text;
  for (const Backup_Entry& member : sequence) {
    ids.push_back(member.id);
    text += (text.empty() ? "" : " > ") + member.id;
  }
  return text;
}
} // namespace

int run_backups(Session& session)
{
  std::string resource_uuid;
  if (!session.resource_of(session.line().instance, resource_uuid))
    return EXIT_CODE_FAILED;
  std::map<std::string, json_spirit::Value> fields;
  if (!resource_uuid.empty())
    fields["resource_uuid"] = resource_uuid;
  // One more than shown tells whether there are older ones.
  const uint64_t limit = session.line().limit;
  std::vector<Backup_Entry> backups;
  std::string error;
  if (!list_backups(fields, limit ? limit + 1 : 0, backups, error))
    return session.fail("the backups cannot be listed: " + error);
  const bool more = limit && backups.size() > limit;
  if (more)
    backups.resize(limit);

  json_spirit::Array list;
  std::vector<std::vector<std::string>> rows = {{"BACKUP", "INSTANCE", "LEVEL", "TIME", "SIZE", "STORED", "STATE"}};
  for (const Backup_Entry& backup : backups) {
    if (session.line().json)
      list.push_back(json_of_backup(session, backup));
    else
      rows.push_back({backup.id, session.instance_name(backup.resource_uuid), backup.level,
                      format_time(backup.start_time).substr(0, 16), format_bytes(backup.size),
                      format_bytes(backup.stored_size), state_text(backup)});
  }
  json_spirit::Object json;
  set_value(json, "backups", list);
  set_value(json, "more", more);
  session.result(json, backups.empty() ? "There is no backup yet. Make one: kestrel backup INSTANCE\n"
                                       : format_table(rows, {4, 5}));
  if (more)
    session.note("The newest " + std::to_string(limit) + " are shown; --limit 0 lists all.");
  return EXIT_CODE_DONE;
}

int run_show(Session& session)
{
  Backup_Entry backup;
  if (!find_backup(session, session.line().names.front(), backup))
    return EXIT_CODE_FAILED;
  json_spirit::Array chain_ids;
  const std::string chain = chain_text(backup, chain_ids);
  json_spirit::Object json = json_of_backup(session, backup);
  set_value(json, "chain", chain_ids);

  const std::string problem = backup.state_reason.empty() ? "" : " (" + backup.state_reason + ")";
  session.result(
      json, format_table({
                {"Backup", backup.id},
                {"Instance", session.instance_name(backup.resource_uuid)},
                {"Level", backup.level},
                {"State", state_word(backup) + problem},
                {"Chain", chain},
                {"Begun", format_time(backup.start_time)},
                {"Ended", format_time(backup.end_time)},
                {"Size", format_bytes(backup.size) + " (" + std::to_string(backup.size) + " bytes)"},
                {"Stored", format_bytes(backup.stored_size) + " (" + std::to_string(backup.stored_size) + " bytes)"},
                {"Ratio", format_ratio(backup.size, backup.stored_size) + " (" + backup.compression + ")"},
                {"Checksum", backup.original_checksum + " (stream, XXH3-128)"},
                {"", backup.storage_checksum + " (as stored)"},
                {"Position", "LSN " + std::to_string(backup.lsn) + ", SCN " + std::to_string(backup.scn)},
                {"Pool", pool_name(session, backup.pool_uuid)},
                {"File", backup.uri + "/" + backup.file},
            }));
  return EXIT_CODE_DONE;
}
} // namespace kestrel

#include "cli/backup_output.h"
#include "cli/export_output.h"
#include "cli/session.h"
#include "cli/text_format.h"

#include "json/json_util.h"

namespace kestrel
{
namespace
{
typedef std::vector<std::vector<std::string>> Rows;

/// One row for each text; only the first has the title.
void add_rows(Rows& rows, const std::string& title, const std::vector<std::string>& texts)
{
  for (size_t row = 0; row < texts.size(); ++row)
    rows.push_back({row ? "" : title, texts[row]});
}

std::string parent_text(const Backup_Entry& backup)
{
  if (backup.predecessor_id.empty())
    return "nothing: it is a full backup";
  return backup.predecessor_id + (backup.predecessor_missing ? ", which is not in the catalog" : "");
}

std::string with_exact_bytes(uint64_t bytes)
{
  return format_bytes(bytes) + " (" + std::to_string(bytes) + " bytes)";
}

/// What a restore reads, in order; or why there is none.
std::vector<std::string> restore_texts(const std::vector<Backup_Entry>& sequence, const std::string& problem)
{
  if (sequence.empty())
    return {"impossible: " + problem};
  std::vector<std::string> texts;
  uint64_t bytes = 0;
  for (const Backup_Entry& member : sequence) {
    texts.push_back(std::to_string(texts.size() + 1) + ". " + member.id + " (" + member.level + ", " +
                    format_bytes(member.size) + ")");
    bytes += member.size;
  }
  if (sequence.size() > 1)
    texts.push_back(format_bytes(bytes) + " together");
  return texts;
}

Rows describe(Command_Context& context, const Backup_Entry& backup, const std::vector<Backup_Entry>& sequence,
              const std::string& problem)
{
  Rows rows = {
      {"Backup", backup.id},
      {"Instance", context.instance_name(backup.resource_uuid)},
      {"Level", backup.level},
      {"State", state_word(backup) + (backup.state_reason.empty() ? "" : " (" + backup.state_reason + ")")},
      {"Builds on", parent_text(backup)},
  };
  add_rows(rows, "Continued by",
           backup.children.empty() ? std::vector<std::string>{"nothing"} : backup.children);
  add_rows(rows, "A restore reads", restore_texts(sequence, problem));
  const Rows details = {
      {"Begun", format_time(backup.start_time)},
      {"Ended", format_time(backup.end_time)},
      {"Size", with_exact_bytes(backup.size)},
      {"Stored", with_exact_bytes(backup.stored_size)},
      {"Ratio", format_ratio(backup.size, backup.stored_size) + " (" + backup.compression + ")"},
      {"Checksum", backup.original_checksum + " (stream, XXH3-128)"},
      {"", backup.storage_checksum + " (as stored)"},
      {"Position", "LSN " + std::to_string(backup.lsn) + ", SCN " + std::to_string(backup.scn)},
      {"Pool", pool_name(context, backup.pool_uuid)},
      {"File", backup.uri + "/" + backup.file},
  };
  rows.insert(rows.end(), details.begin(), details.end());
  return rows;
}
} // namespace

int run_show(Command_Context& context)
{
  Export_Entry exported;
  if (means_export(context.line().names.front(), exported)) {
    context.result(json_of_export(context, exported), text_of_export(context, exported));
    return EXIT_CODE_DONE;
  }
  Backup_Entry backup;
  if (!find_backup(context, context.line().names.front(), backup))
    return EXIT_CODE_FAILED;
  std::vector<Backup_Entry> sequence;
  std::string problem;
  std::string error;
  if (!backup_sequence(backup, sequence, problem, error))
    return context.fail("the chain of backup " + backup.id + " cannot be read: " + error);

  json_spirit::Array chain;
  uint64_t bytes = 0;
  for (const Backup_Entry& member : sequence) {
    chain.push_back(member.id);
    bytes += member.size;
  }
  json_spirit::Object json = json_of_backup(context, backup);
  set_value(json, "chain", chain);
  set_value(json, "restore_size", bytes);
  context.result(json, format_table(describe(context, backup, sequence, problem)));
  return EXIT_CODE_DONE;
}
} // namespace kestrel

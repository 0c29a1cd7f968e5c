#include "cli/backup_output.h"
#include "cli/chain_tree.h"
#include "cli/export_output.h"
#include "cli/session.h"
#include "cli/text_format.h"

#include "json/json_util.h"

#include <map>

namespace kestrel
{
namespace
{
/// What a page of the catalog is shown as.
struct Page {
  std::vector<Backup_Entry> backups; ///< newest first
  bool more = false;                 ///< older ones were left out
  std::vector<Export_Entry> exports; ///< newest first
  bool more_exports = false;
};

bool read_page(Command_Context& context, Page& page)
{
  std::string resource_uuid;
  if (!context.resource_of(context.line().instance, resource_uuid))
    return false;
  std::map<std::string, json_spirit::Value> fields;
  if (!resource_uuid.empty())
    fields["resource_uuid"] = resource_uuid;
  // One more than shown tells whether there are older ones.
  const uint64_t limit = context.line().limit;
  std::string error;
  if (!list_backups(fields, limit ? limit + 1 : 0, page.backups, error)) {
    context.fail("the backups cannot be listed: " + error);
    return false;
  }
  page.more = limit && page.backups.size() > limit;
  if (page.more)
    page.backups.resize(limit);
  if (!list_exports(fields, limit ? limit + 1 : 0, page.exports, error)) {
    context.fail("the exports cannot be listed: " + error);
    return false;
  }
  page.more_exports = limit && page.exports.size() > limit;
  if (page.more_exports)
    page.exports.resize(limit);
  return true;
}

/// A table with the drawing of the chains before the ids, a line for each instance before its chains, and
/// remarks between the rows.
std::string tree_of(Command_Context& context, const std::vector<Backup_Entry>& backups)
{
  std::vector<std::vector<std::string>> rows = {{"BACKUP", "LEVEL", "TIME", "SIZE", "STORED", "STATE"}};
  std::multimap<size_t, std::string> lines_before_row;
  for (const Tree_Line& line : draw_chains(backups, tree_style_of_locale())) {
    if (line.kind != Tree_Line::Kind::backup) {
      const bool is_instance = line.kind == Tree_Line::Kind::resource;
      lines_before_row.emplace(rows.size(), is_instance ? context.instance_name(line.text) : line.text);
      continue;
    }
    const Backup_Entry& backup = backups[line.backup];
    rows.push_back({line.text + backup.id, backup.level, format_time(backup.start_time).substr(0, 16),
                    format_bytes(backup.size), format_bytes(backup.stored_size), state_text(backup)});
  }
  return format_table(rows, {3, 4}, lines_before_row);
}

std::string text_of(Command_Context& context, const Page& page)
{
  if (page.backups.empty() && page.exports.empty())
    return "There is no backup yet. Make one: kestrel backup INSTANCE\n";
  std::string text = page.backups.empty() ? "" : tree_of(context, page.backups);
  if (!page.exports.empty())
    text += (text.empty() ? "" : "\n") + table_of_exports(page.exports);
  return text;
}
} // namespace

int run_backups(Command_Context& context)
{
  Page page;
  if (!read_page(context, page))
    return EXIT_CODE_FAILED;
  json_spirit::Object json;
  if (context.line().json) {
    json_spirit::Array list;
    for (const Backup_Entry& backup : page.backups)
      list.push_back(json_of_backup(context, backup));
    set_value(json, "backups", list);
    set_value(json, "more", page.more);
    json_spirit::Array exports;
    for (const Export_Entry& entry : page.exports)
      exports.push_back(json_of_export(context, entry));
    set_value(json, "exports", exports);
    set_value(json, "more_exports", page.more_exports);
  }
  context.result(json, context.line().json ? "" : text_of(context, page));
  if (page.more || page.more_exports)
    context.note("The newest " + std::to_string(context.line().limit) + " are shown; --limit 0 lists all.");
  size_t broken = 0;
  for (const Backup_Entry& backup : page.backups)
    broken += backup.chain_length ? 0 : 1;
  if (broken)
    context.note(std::to_string(broken) + " of these cannot be restored; kestrel show BACKUP says why.");
  size_t damaged = 0;
  for (const Backup_Entry& backup : page.backups)
    damaged += backup.damage.empty() ? 0 : 1;
  for (const Export_Entry& entry : page.exports)
    damaged += entry.damage.empty() ? 0 : 1;
  if (damaged)
    context.note(
        "Of " + std::to_string(damaged) +
        " the record in the catalog is damaged: kestrel show BACKUP says how. They can be used once a "
        "saved copy of the catalog is put back.");
  return EXIT_CODE_DONE;
}
} // namespace kestrel

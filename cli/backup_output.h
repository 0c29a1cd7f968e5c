#pragma once

#include "agent/backup_catalog.h"
#include "cli/command_context.h"

namespace kestrel
{
/// One backup as --json shows it; docs/formats.md documents the keys.
json_spirit::Object json_of_backup(Command_Context& context, const Backup_Entry& backup);
/// Id of what it builds on directly; null for a full backup.
json_spirit::Value parent_of(const Backup_Entry& backup);
/// Name of the pool with this id, or the id itself when it is not registered any more.
std::string pool_name(Command_Context& context, const std::string& pool_id);
/// "available", "unusable" (the stored file) or "chain_broken" (what it builds on), for --json.
const char* state_word(const Backup_Entry& backup);
/// The same in few columns, for people: "ok", "unusable", "no chain". Both need an entry with its chain.
const char* state_text(const Backup_Entry& backup);
/// The backup that the user's word means. False after fail().
[[nodiscard]] bool find_backup(Command_Context& context, const std::string& reference, Backup_Entry& backup);
} // namespace kestrel

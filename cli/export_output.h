#pragma once

#include "agent/export_catalog.h"
#include "cli/object_path.h"
#include "cli/command_context.h"

#include <string>
#include <vector>

namespace kestrel
{
/// One export as --json shows it; docs/formats.md documents the keys.
json_spirit::Object json_of_export(Command_Context& context, const Export_Entry& entry);
/// A table with a row for each export.
std::string table_of_exports(const std::vector<Export_Entry>& exports);
/// One export in full.
std::string text_of_export(Command_Context& context, const Export_Entry& entry);

/// The object that a dump file holds.
Object_Path object_of(const Export_Entry& entry, const Export_File& file);

/// The one export that the user's word means. False after fail().
[[nodiscard]] bool find_export(Command_Context& context, const std::string& reference, Export_Entry& entry);
/// Whether the word means an export: no physical backup fits it, and exactly one export does. False, too, for
/// "latest", which means a physical one everywhere but in an import.
[[nodiscard]] bool means_export(const std::string& reference, Export_Entry& entry);
} // namespace kestrel

#include "cli/export_verification.h"

#include "cli/cancel_signals.h"

#include "agent/export_verifier.h"
#include "cli/export_output.h"
#include "cli/progress_display.h"

namespace kestrel
{
namespace
{
Chain_Verification::Outcome outcome_of(const Verification& verification)
{
  switch (verification.outcome) {
  case Verification::Outcome::good:
    return Chain_Verification::Outcome::good;
  case Verification::Outcome::damaged:
    return Chain_Verification::Outcome::damaged;
  case Verification::Outcome::unknown:
    break;
  }
  return Chain_Verification::Outcome::unknown;
}
} // namespace

bool choose_exports(Session& session, std::vector<Export_Entry>& exports, std::vector<std::string>& others)
{
  const Command_Line& line = session.line();
  for (const std::string& reference : line.names) {
    Export_Entry entry;
    if (means_export(reference, entry))
      exports.push_back(entry);
    else
      others.push_back(reference);
  }
  if (!line.names.empty())
    return true;
  std::string resource_uuid;
  if (!session.resource_of(line.instance, resource_uuid))
    return false;
  std::map<std::string, json_spirit::Value> fields;
  if (!resource_uuid.empty())
    fields["resource_uuid"] = resource_uuid;
  std::string error;
  if (list_exports(fields, 0, exports, error))
    return true;
  session.fail("the exports cannot be listed: " + error);
  return false;
}

Chain_Verification verify_one_export(Session& session, const Export_Entry& entry)
{
  const bool silent = session.line().quiet || session.line().json;
  Progress_Display display(stderr, silent ? Progress_Display::Mode::quiet : progress_mode_of(stderr),
                           entry.id);
  Chain_Verification result;
  result.file = verify_export(
      entry, [&display](uint64_t done, uint64_t total) { display.update(done, total); },
      [] { return Cancel_Signals::requested(); });
  result.outcome = outcome_of(result.file);
  result.problem = result.file.problem;
  result.backup.id = entry.id;
  result.backup.level = "export";
  result.backup.resource_uuid = entry.resource_uuid;
  result.backup.available = entry.available;
  result.backup.deleting = entry.deleting;
  return result;
}
} // namespace kestrel

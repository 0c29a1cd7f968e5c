#include "cli/backup_output.h"
#include "cli/progress_display.h"
#include "cli/text_format.h"

#include "agent/backup_verifier.h"
#include "catalog/catalog_admin.h"
#include "json/json_util.h"

namespace kestrel
{
namespace
{
bool choose_backups(Session& session, std::vector<Backup_Entry>& backups)
{
  const Command_Line& line = session.line();
  for (const std::string& reference : line.names) {
    Backup_Entry backup;
    if (!find_backup(session, reference, backup))
      return false;
    backups.push_back(backup);
  }
  if (!line.names.empty())
    return true;
  std::string resource_uuid;
  std::string error;
  if (!session.resource_of(line.instance, resource_uuid))
    return false;
  std::map<std::string, json_spirit::Value> fields;
  if (!resource_uuid.empty())
    fields["resource_uuid"] = resource_uuid;
  if (!list_backups(fields, 0, backups, error)) {
    session.fail("the backups cannot be listed: " + error);
    return false;
  }
  return true;
}

const char* outcome_text(Verification::Outcome outcome)
{
  switch (outcome) {
  case Verification::Outcome::good:
    return "good";
  case Verification::Outcome::damaged:
    return "damaged";
  case Verification::Outcome::unknown:
    break;
  }
  return "not verified";
}

/// A damaged backup must not be offered for a restore, and a repaired one must be offered again.
bool record_outcome(const Backup_Entry& backup, const Verification& verification, std::string& error)
{
  const bool good = verification.outcome == Verification::Outcome::good;
  if (verification.outcome == Verification::Outcome::unknown || good == backup.available)
    return true;
  const int max_seconds_retry = 10;
  return Catalog_Admin(max_seconds_retry)
      .set_state(backup.id, good ? Set_State::available : Set_State::unavailable, verification.problem, error);
}

Verification verify_one(Session& session, const Backup_Entry& backup)
{
  const bool silent = session.line().quiet || session.line().json;
  Progress_Display display(stderr, silent ? Progress_Display::Mode::quiet : progress_mode_of(stderr), backup.id);
  return verify_backup(
      backup, [&display](uint64_t done, uint64_t total) { display.update(done, total); },
      [] { return Cancel_Signals::requested(); });
}
} // namespace

int run_verify(Session& session)
{
  std::vector<Backup_Entry> backups;
  if (!choose_backups(session, backups))
    return EXIT_CODE_FAILED;

  const Cancel_Signals signals;
  json_spirit::Array list;
  std::vector<std::vector<std::string>> rows = {{"BACKUP", "INSTANCE", "RESULT", "SIZE", "PROBLEM"}};
  size_t bad_count = 0;
  std::string error;
  for (const Backup_Entry& backup : backups) {
    const Verification verification = verify_one(session, backup);
    if (Cancel_Signals::requested())
      return session.fail("the verification was canceled at backup " + backup.id, EXIT_CODE_CANCELED);
    if (!record_outcome(backup, verification, error))
      return session.fail("the result for backup " + backup.id + " cannot be kept: " + error);
    bad_count += verification.outcome == Verification::Outcome::good ? 0 : 1;
    json_spirit::Object object;
    set_value(object, "id", backup.id);
    set_value(object, "result", outcome_text(verification.outcome));
    set_value(object, "bytes", verification.bytes);
    set_value(object, "problem", verification.problem);
    list.push_back(object);
    rows.push_back({backup.id, session.instance_name(backup.resource_uuid), outcome_text(verification.outcome),
                    format_bytes(verification.bytes), verification.problem});
  }
  json_spirit::Object json;
  set_value(json, "verified", list);
  session.result(json, backups.empty() ? "There is no backup to verify.\n" : format_table(rows, {3}));
  if (bad_count == 0)
    return EXIT_CODE_DONE;
  std::fprintf(stderr, "kestrel: %zu of %zu backups could not be verified; make a new backup of their instances\n",
               bad_count, backups.size());
  return EXIT_CODE_FAILED;
}
} // namespace kestrel

#include "cli/backup_output.h"
#include "cli/cancel_signals.h"
#include "cli/export_verification.h"
#include "cli/progress_display.h"
#include "cli/text_format.h"

#include "agent/chain_verifier.h"
#include "catalog/catalog_admin.h"
#include "json/json_util.h"

#include <algorithm>
#include <set>
#include <utility>

namespace kestrel
{
namespace
{
bool all_backups(Session& session, std::vector<Backup_Entry>& backups)
{
  std::string resource_uuid;
  std::string error;
  if (!session.resource_of(session.line().instance, resource_uuid))
    return false;
  std::map<std::string, json_spirit::Value> fields;
  if (!resource_uuid.empty())
    fields["resource_uuid"] = resource_uuid;
  if (list_backups(fields, 0, backups, error))
    return true;
  session.fail("the backups cannot be listed: " + error);
  return false;
}

/// What restores of the named backups would read, each set once, newest first.
bool named_chains(Session& session, const std::vector<std::string>& names, std::vector<Backup_Entry>& backups)
{
  std::set<std::pair<std::string, std::string>> taken;
  for (const std::string& reference : names) {
    Backup_Entry backup;
    std::vector<Backup_Entry> chain;
    std::string error;
    if (!find_backup(session, reference, backup))
      return false;
    if (!known_chain(backup, chain, error)) {
      session.fail("the chain of backup " + backup.id + " cannot be read: " + error);
      return false;
    }
    for (const Backup_Entry& member : chain)
      if (taken.insert({member.resource_uuid, member.id}).second)
        backups.push_back(member);
  }
  std::reverse(backups.begin(), backups.end());
  return true;
}

const char* outcome_text(Chain_Verification::Outcome outcome)
{
  switch (outcome) {
  case Chain_Verification::Outcome::good:
    return "good";
  case Chain_Verification::Outcome::damaged:
    return "damaged";
  case Chain_Verification::Outcome::no_chain:
    return "no chain";
  case Chain_Verification::Outcome::unknown:
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
      .set_state(backup.id, good ? Set_State::available : Set_State::unavailable, verification.problem,
                 error);
}

Verification verify_one(Session& session, const Backup_Entry& backup)
{
  const bool silent = session.line().quiet || session.line().json;
  Progress_Display display(stderr, silent ? Progress_Display::Mode::quiet : progress_mode_of(stderr),
                           backup.id);
  return verify_backup(
      backup, [&display](uint64_t done, uint64_t total) { display.update(done, total); },
      [] { return Cancel_Signals::requested(); });
}

/// A line for each backup, in the order in which a restore reads them.
int show_results(Session& session, const std::vector<Chain_Verification>& results)
{
  json_spirit::Array list;
  std::vector<std::vector<std::string>> rows = {{"BACKUP", "LEVEL", "INSTANCE", "RESULT", "SIZE", "PROBLEM"}};
  size_t bad_count = 0;
  size_t unknown_count = 0;
  size_t deleting_count = 0;
  for (const Chain_Verification& result : results) {
    deleting_count += result.backup.deleting ? 1 : 0;
    const bool unknown = result.outcome == Chain_Verification::Outcome::unknown;
    const bool good = result.outcome == Chain_Verification::Outcome::good;
    unknown_count += unknown && !result.backup.deleting ? 1 : 0;
    bad_count += unknown || good || result.backup.deleting ? 0 : 1;
    json_spirit::Object object;
    set_value(object, "id", result.backup.id);
    set_value(object, "level", result.backup.level);
    set_value(object, "parent", parent_of(result.backup));
    set_value(object, "result", outcome_text(result.outcome));
    set_value(object, "bytes", result.file.bytes);
    set_value(object, "problem", result.problem);
    list.push_back(object);
    rows.push_back({result.backup.id, result.backup.level, session.instance_name(result.backup.resource_uuid),
                    outcome_text(result.outcome), format_bytes(result.file.bytes), result.problem});
  }
  json_spirit::Object json;
  set_value(json, "verified", list);
  session.result(json, results.empty() ? "There is no backup to verify.\n" : format_table(rows, {4}));
  if (deleting_count != 0)
    std::fprintf(stderr, "kestrel: the deletion of %zu of %zu backups has begun; finish it with kestrel delete\n",
                 deleting_count, results.size());
  if (unknown_count != 0)
    std::fprintf(stderr,
                 "kestrel: %zu of %zu backups were not verified, for the reasons above; that says nothing about "
                 "them, and nothing was recorded\n",
                 unknown_count, results.size());
  if (bad_count == 0)
    return deleting_count + unknown_count == 0 ? EXIT_CODE_DONE : EXIT_CODE_FAILED;
  std::fprintf(stderr,
               "kestrel: %zu of %zu backups could not be verified; make a full backup of their "
               "instances, or export their objects again\n",
               bad_count, results.size());
  return EXIT_CODE_FAILED;
}
} // namespace

int run_verify(Session& session)
{
  std::vector<Backup_Entry> backups;
  std::vector<Export_Entry> exports;
  std::vector<std::string> chains; // the names that mean no export
  if (!choose_exports(session, exports, chains) ||
      !(session.line().names.empty() ? all_backups(session, backups)
                                     : named_chains(session, chains, backups)))
    return EXIT_CODE_FAILED;

  const Cancel_Signals signals;
  std::string error;
  bool kept = true;
  std::vector<Chain_Verification> results = verify_chains(
      backups, [&session](const Backup_Entry& backup) { return verify_one(session, backup); },
      [&](const Chain_Verification& result) {
        kept = Cancel_Signals::requested() || record_outcome(result.backup, result.file, error);
        return kept && !Cancel_Signals::requested();
      });
  for (auto entry = exports.begin(); kept && !Cancel_Signals::requested() && entry != exports.end();
       ++entry) {
    results.push_back(verify_one_export(session, *entry));
    kept = Cancel_Signals::requested() || record_outcome(results.back().backup, results.back().file, error);
  }
  if (Cancel_Signals::requested())
    return session.fail("the verification was canceled at backup " + results.back().backup.id,
                        EXIT_CODE_CANCELED);
  if (!kept)
    return session.fail("the result for backup " + results.back().backup.id + " cannot be kept: " + error);
  return show_results(session, results);
}
} // namespace kestrel

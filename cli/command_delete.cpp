#include "cli/backup_output.h"
#include "cli/confirmation.h"
#include "cli/export_output.h"
#include "cli/session.h"
#include "cli/text_format.h"

#include "catalog/catalog_admin.h"
#include "json/json_util.h"

#include <algorithm>
#include <cstdio>
#include <map>
#include <set>

namespace kestrel
{
namespace
{
const int CATALOG_SECONDS = 10;

/// One backup or export that is to go.
struct Doomed {
  Stored_Reference stored;
  std::string level; ///< "export" for one
  std::string pool_uuid;
  std::string folder;
  std::string file;
  time_t start_time = 0;
  uint64_t stored_size = 0;
  std::vector<std::string> dependents; ///< ids of all that build on it
};

Doomed doomed_backup(const Backup_Entry& backup)
{
  return {{backup.id, backup.resource_uuid, false},
          backup.level,
          backup.pool_uuid,
          backup.uri,
          backup.file,
          backup.start_time,
          backup.stored_size,
          {}};
}

Doomed doomed_export(const Export_Entry& entry)
{
  return {{entry.id, entry.resource_uuid, true},
          "export",
          entry.pool_uuid,
          entry.minor_resource_id,
          entry.file,
          entry.start_time,
          entry.stored_size,
          {}};
}

class Deletion
{
public:
  explicit Deletion(Command_Context& context) : context_(context) {}

  int run()
  {
    if (!collect() || !add_dependents())
      return context_.last_code();
    order();
    if (!context_.line().json)
      std::fputs(describe().c_str(), stderr);
    const int answer = ask_to_go_on(context_, "deletion");
    return answer == EXIT_CODE_DONE ? carry_out() : answer;
  }

private:
  bool add(Doomed doomed)
  {
    if (!ids_.insert(doomed.stored.id).second)
      return true;
    std::string error;
    if (!doomed.stored.exported &&
        !Catalog_Admin(CATALOG_SECONDS).dependents(doomed.stored.id, doomed.dependents, error)) {
      context_.fail("it cannot be found out what builds on backup " + doomed.stored.id + ": " + error);
      return false;
    }
    all_.push_back(std::move(doomed));
    return true;
  }

  /// What the user named.
  bool collect()
  {
    for (const std::string& reference : context_.line().names) {
      Export_Entry exported;
      Backup_Entry backup;
      if (means_export(reference, exported)) {
        if (!add(doomed_export(exported)))
          return false;
      } else if (!find_backup(context_, reference, backup) || !add(doomed_backup(backup)))
        return false;
    }
    return true;
  }

  bool add_dependents()
  {
    const std::vector<Doomed> named = all_;
    for (const Doomed& each : named) {
      std::vector<std::string> further;
      for (const std::string& id : each.dependents)
        if (ids_.count(id) == 0)
          further.push_back(id);
      if (!further.empty() && !context_.line().dependents)
        return refuse(each, further);
      for (const std::string& id : further) {
        std::vector<Backup_Entry> found;
        std::string error;
        if (!list_backups({{"uuid", id}}, 1, found, error)) {
          context_.fail("the backup " + id + " cannot be looked up: " + error);
          return false;
        }
        if (!found.empty() && !add(doomed_backup(found.front())))
          return false;
      }
    }
    return true;
  }

  bool refuse(const Doomed& needed, const std::vector<std::string>& further)
  {
    std::string list;
    for (const std::string& id : further)
      list += (list.empty() ? "" : ", ") + id;
    context_.fail("backup " + needed.stored.id + " is needed to restore what builds on it (" + list +
                  "); delete those with it: --dependents");
    return false;
  }

  /// What builds on something goes before it: it has fewer dependents, those that it has in common.
  void order()
  {
    std::stable_sort(all_.begin(), all_.end(), [](const Doomed& left, const Doomed& right) {
      return left.dependents.size() < right.dependents.size();
    });
  }

  std::string describe() const
  {
    std::string text = "To be deleted:\n";
    int step = 1;
    for (const Doomed& each : all_)
      text += "  " + std::to_string(step++) + ". " + (each.stored.exported ? "export " : "backup ") +
              each.stored.id + " of " + context_.instance_name(each.stored.resource_uuid) + " (" +
              (each.stored.exported ? "" : each.level + ", ") + format_time(each.start_time).substr(0, 16) +
              ", " + format_bytes(each.stored_size) + " in pool " + pool_name(context_, each.pool_uuid) +
              ")\n";
    text += context_.line().keep_file ? "Only the records go; the stored files are left where they are.\n"
                                      : "The stored files go with them and cannot be brought back.\n";
    return text + consequences();
  }

  /// What it means for the instances, as far as that can be found out.
  std::string consequences() const
  {
    std::set<std::string> resources;
    for (const Doomed& each : all_)
      if (!each.stored.exported)
        resources.insert(each.stored.resource_uuid);
    std::string text;
    for (const std::string& resource : resources) {
      std::vector<Backup_Entry> backups, last;
      std::string error;
      if (!list_backups({{"resource_uuid", resource}}, 0, backups, error) ||
          !last_committed_backup(resource, last, error))
        continue;
      const bool some_stay = std::any_of(backups.begin(), backups.end(), [this](const Backup_Entry& backup) {
        return ids_.count(backup.id) == 0 && backup.chain_length > 0;
      });
      if (!some_stay)
        text +=
            "No backup is left then that " + context_.instance_name(resource) + " can be restored from.\n";
      if (!last.empty() && ids_.count(last.front().id) != 0)
        text += next_backup(last.front());
    }
    return text;
  }

  /// The instance's own notes still name the backup that was made last.
  std::string next_backup(const Backup_Entry& last) const
  {
    const std::string name = context_.instance_name(last.resource_uuid);
    if (last.level == "full" || ids_.count(last.full_backup_id) != 0)
      return "The next backup of " + name + " will be a full one.\n";
    return "The next backup of " + name +
           " must be a full or differential one: an incremental one would build on " + last.id +
           " and could not be restored.\n";
  }

  int carry_out()
  {
    json_spirit::Array list;
    uint64_t bytes = 0;
    for (const Doomed& each : all_) {
      std::string problem;
      if (!context_.delete_stored(each.stored, context_.line().keep_file, problem))
        return stopped(each, problem, list.size());
      json_spirit::Object json;
      set_value(json, "id", each.stored.id);
      set_value(json, "instance", context_.instance_name(each.stored.resource_uuid));
      set_value(json, "level", each.level);
      set_value(json, "pool", pool_name(context_, each.pool_uuid));
      set_value(json, "folder", each.folder);
      set_value(json, "file", each.file);
      set_value(json, "stored_size", each.stored_size);
      list.push_back(json);
      bytes += each.stored_size;
    }
    const size_t count = list.size();
    json_spirit::Object json;
    set_value(json, "deleted", list);
    set_value(json, "files_kept", context_.line().keep_file);
    context_.result(json, "Deleted: " + std::to_string(count) + (count == 1 ? " backup" : " backups") +
                              (context_.line().keep_file ? "; the stored files were left alone.\n"
                                                         : ", " + format_bytes(bytes) + " as stored.\n"));
    return EXIT_CODE_DONE;
  }

  int stopped(const Doomed& at, const std::string& problem, size_t done)
  {
    return context_.fail(
        (at.stored.exported ? "export " : "backup ") + at.stored.id + " was not deleted: " + problem +
        (all_.size() == 1 ? ""
                          : "; of the " + std::to_string(all_.size()) + " that were to go, " +
                                std::to_string(done) + " are deleted"));
  }

  Command_Context& context_;
  std::vector<Doomed> all_;
  std::set<std::string> ids_;
};
} // namespace

int run_delete(Command_Context& context)
{
  return Deletion(context).run();
}
} // namespace kestrel

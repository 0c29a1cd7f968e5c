#include "agent/export_verifier.h"

#include "archive/mtf.h"
#include "json/json_util.h"

#include <map>

namespace kestrel
{
namespace
{
class Verification_Handler : public MTF::Event_Handler
{
public:
  Verification_Handler(const std::function<void(uint64_t, uint64_t)>& progress,
                       const std::function<bool()>& cancel_requested)
      : Event_Handler(nullptr), progress_(progress), cancel_requested_(cancel_requested)
  {
  }
  int handle_progress(int, unsigned long long total, unsigned long long done, unsigned long long) override
  {
    if (progress_)
      progress_(done, total);
    return 0;
  }
  bool canceling() override { return cancel_requested_ && cancel_requested_(); }

private:
  const std::function<void(uint64_t, uint64_t)>& progress_;
  const std::function<bool()>& cancel_requested_;
};

/// What the catalog says of each file must be what the archive holds.
std::string disagreement_about_files(const Export_Entry& backup,
                                     const std::vector<MTF::Stored_Member>& members)
{
  std::map<std::string, const MTF::Stored_Member*> by_path;
  for (const MTF::Stored_Member& member : members)
    by_path[member.path] = &member;
  for (const Export_File& file : backup.files) {
    const auto found = by_path.find(utf8_without_invalid(file.path));
    if (found == by_path.end())
      return "the archive does not hold " + file.path + ", the catalog says so";
    const MTF::Stored_Member& member = *found->second;
    if (member.size != file.size || (!file.checksum.empty() && member.checksum != file.checksum))
      return "the archive's " + file.path + " is not the one that the catalog describes";
  }
  return "";
}

std::string disagreement_with_catalog(const Export_Entry& backup, const MTF_Restore& archive)
{
  if (archive.set_size() != backup.size)
    return "the archive has " + std::to_string(archive.set_size()) + " bytes, the catalog says " +
           std::to_string(backup.size);
  if (archive.set_storage_size() != backup.stored_size)
    return "the stored file has " + std::to_string(archive.set_storage_size()) + " bytes, the catalog says " +
           std::to_string(backup.stored_size);
  if (!backup.original_checksum.empty() && archive.original_checksum() != backup.original_checksum)
    return "the archive's checksum differs from the catalog's";
  if (!backup.storage_checksum.empty() && archive.storage_checksum() != backup.storage_checksum)
    return "the stored file's checksum differs from the catalog's";
  return disagreement_about_files(backup, archive.members());
}
} // namespace

Verification verify_export(const Export_Entry& backup,
                           const std::function<void(uint64_t done_bytes, uint64_t total_bytes)>& progress,
                           const std::function<bool()>& cancel_requested)
{
  Verification result;
  if (!backup.damage.empty() || backup.deleting) {
    result.problem = backup.state_reason;
    return result;
  }
  Pool_Info pool;
  if (!find_pool_of_backup(backup.pool_uuid, pool, result.problem))
    return result;
  Verification_Handler handler(progress, cancel_requested);
  MTF_Restore archive(&handler, nullptr);
  archive.pool_uuid(backup.pool_uuid);
  archive.backup_minor_resource_id(backup.minor_resource_id);
  archive.seq(backup.seq);
  archive.definition_uuid(backup.definition_uuid);
  archive.backup_host_uuid(backup.host_uuid);
  archive.backup_uuid(backup.id);
  const bool read = archive.verify();
  result.bytes = archive.size();
  if (archive.canceled()) {
    result.problem = "canceled";
    return result;
  }
  result.problem = read ? disagreement_with_catalog(backup, archive) : archive.error();
  const std::string path =
      pool.storage_path + "/" + backup.minor_resource_id + "/" + archive_file_name(backup.seq);
  if (!read && tells_nothing(pool, path, result.problem))
    return result;
  result.outcome = result.problem.empty() ? Verification::Outcome::good : Verification::Outcome::damaged;
  return result;
}
} // namespace kestrel

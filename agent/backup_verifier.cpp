#include "agent/backup_verifier.h"

#include "storage/back_end.h"
#include "storage/client_io.h"
#include "storage/pool.h"
#include "storage/pool_mark.h"
#include "storage/random_reader.h"

#include <cerrno>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace kestrel
{
namespace
{
constexpr unsigned block_bytes = 1u << 20;
/// The head of a stream, and the longest info block that a restore accepts.
constexpr uint32_t head_bytes = 512;
constexpr uint32_t longest_info_bytes = 8192;

Verification judged(Verification::Outcome outcome, const std::string& problem, uint64_t bytes)
{
  Verification verification;
  verification.outcome = outcome;
  verification.problem = problem;
  verification.bytes = bytes;
  return verification;
}

/// The stream begins with its own length of the info block, big-endian. Empty text when a restore would
/// accept it.
std::string info_block_problem(const std::vector<unsigned char>& first_block, size_t count)
{
  if (count < head_bytes)
    return "the stream is shorter than its info head";
  uint32_t info_bytes = 0;
  for (size_t position = 0; position < 4; ++position)
    info_bytes = info_bytes << 8 | first_block[position];
  if (info_bytes < head_bytes || info_bytes > longest_info_bytes)
    return "the info head announces an info block of " + std::to_string(info_bytes) + " bytes";
  if (count < info_bytes)
    return "the stream ends inside its info block";
  return "";
}

std::string disagreement_with_catalog(const Backup_Entry& backup, const Client_IO_Ex& client, uint64_t bytes)
{
  if (bytes != backup.size)
    return "the stream has " + std::to_string(bytes) + " bytes, the catalog says " +
           std::to_string(backup.size);
  if (client.storage_size() != backup.stored_size)
    return "the stored file has " + std::to_string(client.storage_size()) + " bytes, the catalog says " +
           std::to_string(backup.stored_size);
  if (!backup.original_checksum.empty() && client.original_checksum() != backup.original_checksum)
    return "the stream's checksum differs from the catalog's";
  if (!backup.pump_checksum.empty() && client.original_checksum() != backup.pump_checksum)
    return "the stream's checksum differs from the one taken when the tool wrote it";
  if (!backup.storage_checksum.empty() && client.storage_checksum() != backup.storage_checksum)
    return "the stored file's checksum differs from the catalog's";
  return "";
}

/// What the side file says against the catalog. A file without one, too, is refused by every restore.
std::string side_file_problem(const Stored_File_Reader& file, const Backup_Entry& backup)
{
  Side_File side_file;
  std::string error;
  if (!load_side_file(file, side_file, error))
    return error;
  if (side_file.storage_size != backup.stored_size || side_file.original_size != backup.size)
    return "its side file tells of another file than the catalog";
  if (!backup.storage_checksum.empty() && side_file.storage_checksum != backup.storage_checksum)
    return "its side file has another checksum than the catalog";
  return "";
}
} // namespace

bool find_pool_of_backup(const std::string& pool_uuid, Pool_Info& pool, std::string& problem)
{
  Client_IO_Base::Options options;
  struct stat status;
  if (!get_pool_info(pool_uuid, "", pool, false, 0, nullptr, true, nullptr, nullptr, false) ||
      !set_options_by_pool(options, pool))
    problem = "its pool " + pool_uuid + " is not known here";
  else if (pool.back_end.empty() &&
           (::stat(pool.storage_path.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)))
    problem = "the directory " + pool.storage_path + " of pool " + pool.name + " is not there";
  else if (std::string missing; !check_pool_mark(pool, missing))
    problem = "pool " + pool.name + " cannot be reached: " + missing;
  else
    return true;
  return false;
}

bool tells_nothing(const Pool_Info& pool, const std::string& path, const std::string& error)
{
  const auto has = [&error](const char* text) { return error.find(text) != std::string::npos; };
  if (!pool.back_end.empty())
    return !has(" is damaged: ") && !has("cannot verify ") && !has(" refused: cannot open ");
  std::string missing;
  return !check_pool_mark(pool, missing) || (::access(path.c_str(), R_OK) != 0 && errno == EACCES);
}

namespace
{
/// Where the stored file of a backup is looked for.
struct Stored_Place {
  Pool_Info pool;
  Client_IO_Base::Options options;
  std::string folder;
  std::string problem; ///< why there is no such place
};

bool find_place(const std::string& pool_uuid, const Backup_Entry& backup, Stored_Place& place)
{
  if (!backup.damage.empty() || backup.deleting) {
    place.problem = backup.state_reason;
    return false;
  }
  if (!find_pool_of_backup(pool_uuid, place.pool, place.problem) ||
      !set_options_by_pool(place.options, place.pool))
    return false;
  place.folder = place.pool.storage_path + "/" + backup.uri;
  return true;
}
} // namespace

Verification verify_backup(const Backup_Entry& backup,
                           const std::function<void(uint64_t done_bytes, uint64_t total_bytes)>& progress,
                           const std::function<bool()>& cancel_requested)
{
  using Outcome = Verification::Outcome;
  Stored_Place place;
  if (!find_place(backup.pool_uuid, backup, place))
    return judged(Outcome::unknown, place.problem, 0);

  Client_IO_Ex client;
  if (!client.connect(place.folder, place.options))
    return judged(Outcome::unknown, client.error(), 0);
  const auto failed = [&](uint64_t bytes) {
    const bool unknown = tells_nothing(place.pool, place.folder + "/" + backup.file, client.error());
    return judged(unknown ? Outcome::unknown : Outcome::damaged, client.error(), bytes);
  };
  if (!client.open(backup.file, Client_IO_Ex::MODE_READ, 0, 0))
    return failed(0);

  std::vector<unsigned char> block(block_bytes);
  uint64_t bytes = 0;
  for (;;) {
    const int count = client.read(block.data(), block_bytes);
    if (count < 0)
      return failed(bytes);
    if (bytes == 0) {
      const std::string problem = info_block_problem(block, static_cast<size_t>(count));
      if (!problem.empty())
        return judged(Outcome::damaged, problem, static_cast<uint64_t>(count));
    }
    bytes += static_cast<uint64_t>(count);
    if (progress)
      progress(bytes, backup.size);
    if (static_cast<unsigned>(count) < block_bytes)
      break;
    if (cancel_requested && cancel_requested())
      return judged(Outcome::unknown, "canceled", bytes);
  }
  const std::string problem = disagreement_with_catalog(backup, client, bytes);
  return judged(problem.empty() ? Outcome::good : Outcome::damaged, problem, bytes);
}

Verification probe_backup(const Backup_Entry& backup, const std::string& pool_uuid)
{
  using Outcome = Verification::Outcome;
  Stored_Place place;
  if (!find_place(pool_uuid, backup, place))
    return judged(Outcome::unknown, place.problem, 0);
  std::string error;
  const std::unique_ptr<Storage_Back_End> back_end = make_storage_back_end(place.options.back_end, error);
  if (!back_end || !back_end->connect(place.folder, place.options, error))
    return judged(Outcome::unknown, error, 0);
  const std::unique_ptr<Stored_File_Reader> file = back_end->open(backup.file, error);
  if (!file)
    return judged(errno == EHOSTUNREACH ? Outcome::unknown : Outcome::damaged, error, 0);
  if (file->size() != backup.stored_size)
    return judged(Outcome::damaged,
                  "the stored file has " + std::to_string(file->size()) + " bytes, the catalog says " +
                      std::to_string(backup.stored_size),
                  0);
  const std::string problem = side_file_problem(*file, backup);
  return judged(problem.empty() ? Outcome::good : Outcome::damaged, problem, 0);
}
} // namespace kestrel

#pragma once

#include <cstdint>
#include <string>

namespace oscar
{
/// Where the backup chain of one instance stands, as brcmd keeps it in lastlsn.dat. Empty and zero until
/// read.
struct Last_Backup_Info {
  std::string last_full_backup_id;
  uint64_t last_full_backup_lsn = 0;
  uint64_t last_full_backup_scn = 0;
  std::string last_backup_id;
  uint64_t last_backup_lsn = 0;
  uint64_t last_backup_scn = 0;

  /// Both ids are given and no number is zero.
  bool complete() const;
};

/// Takes one line of lastlsn.dat into info if it belongs to the instance; the line of another instance, or
/// one with an unknown key, changes nothing. The key follows the instance name directly, so the lines of
/// "db2" are never taken for "db". A later line for the same key replaces the earlier one.
void take_chain_state_line(const std::string& line, const std::string& instance, Last_Backup_Info& info);

/// Reads the chain position of the instance from the text file at path.
/// Errors: false, logged once at LM_ERROR, when the file cannot be opened or does not give all six values;
///         info then holds what was read so far.
[[nodiscard]] bool read_chain_state(const std::string& path, const std::string& instance,
                                    Last_Backup_Info& info);
} // namespace oscar

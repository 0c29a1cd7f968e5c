#include "oscar/brcmd_chain_state.h"

#include <fcntl.h>

#include <ace/Log_Msg.h>

#include "base/files.h"
#include "base/natoi.h"

namespace oscar
{
namespace
{
struct Chain_Key {
  const char* text;
  std::string Last_Backup_Info::*id;
  uint64_t Last_Backup_Info::*number;
};

const Chain_Key CHAIN_KEYS[] = {
    {"_lastfullbackupid=", &Last_Backup_Info::last_full_backup_id, nullptr},
    {"_lastfullbackuplsn=", nullptr, &Last_Backup_Info::last_full_backup_lsn},
    {"_lastfullbackupscn=", nullptr, &Last_Backup_Info::last_full_backup_scn},
    {"_lastbackupid=", &Last_Backup_Info::last_backup_id, nullptr},
    {"_lastbackuplsn=", nullptr, &Last_Backup_Info::last_backup_lsn},
    {"_lastbackupscn=", nullptr, &Last_Backup_Info::last_backup_scn},
};
} // namespace

bool Last_Backup_Info::complete() const
{
  return !last_full_backup_id.empty() && last_full_backup_lsn != 0 && last_full_backup_scn != 0 &&
         !last_backup_id.empty() && last_backup_lsn != 0 && last_backup_scn != 0;
}

void take_chain_state_line(const std::string& line, const std::string& instance, Last_Backup_Info& info)
{
  for (const Chain_Key& key : CHAIN_KEYS) {
    const std::string prefix = instance + key.text;
    if (line.compare(0, prefix.size(), prefix) != 0)
      continue;
    if (key.id)
      info.*key.id = line.substr(prefix.size());
    else
      info.*key.number = natoi<uint64_t>(line.c_str() + prefix.size(), nullptr);
    return;
  }
}

bool read_chain_state(const std::string& path, const std::string& instance, Last_Backup_Info& info)
{
  ACE_ifstream file(8192);
  // Without waiting: a FIFO of this name would hold the job until someone writes to it.
  if (file.open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK) != 0) {
    ACE_ERROR((LM_ERROR, "Failed to open file %s: %m\n", path.c_str()));
    return false;
  }
  std::string line;
  while (file.getline(line))
    take_chain_state_line(line, instance, info);
  if (info.complete())
    return true;
  ACE_ERROR((LM_ERROR, "Failed to get %s backup info from %s.\n", instance.c_str(), path.c_str()));
  return false;
}
} // namespace oscar

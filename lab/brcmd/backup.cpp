#include "lab/brcmd/backup.h"

#include "lab/brcmd/backup_parts.h"
#include "lab/brcmd/pipe.h"
#include "lab/common/text.h"

namespace oscar_lab
{

void run_backup(const Instance_Files& files, const Backup_Request& request, Run_Log& log)
{
  files.require_existing();
  if (is_regular_file(files.incomplete_mark()))
    throw Failure("the data of " + files.name + " are not usable");
  require_pipe(request.pipe, true);
  const File_Lock alone(files.directory() + "/backup.lock", 0);
  if (!alone.held())
    throw Failure("another backup of " + files.name + " is running");
  log.info("backup of " + files.name + ", level " + request.level);
  if (read_conf(files).archive_log)
    back_up_online(files, request, log);
  else
    back_up_offline(files, request, log);
}

} // namespace oscar_lab

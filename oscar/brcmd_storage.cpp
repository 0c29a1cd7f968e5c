#include "oscar/brcmd_storage.h"

#include "jobs/job.h"
#include "oscar/brcmd_common.h"
#include "oscar/storage_options.h"
#include "storage/pool_mark.h"

#include <ace/Log_Msg.h>

namespace oscar
{
namespace
{
bool open_failed(Job& job, const std::string& file, const std::string& why)
{
  raise_physical_alert(job, 14);
  ACE_ERROR((LM_ERROR, "Failed to open file %s: %s\n", file.c_str(), why.c_str()));
  return false;
}
} // namespace

bool pool_is_there(Job& job, const Pool_Info& pool)
{
  std::string missing;
  if (kestrel::check_pool_mark(pool, missing))
    return true;
  raise_physical_alert(job, 13);
  ACE_ERROR((LM_ERROR, "Failed to connect to storage: %s.\n", missing.c_str()));
  return false;
}

bool find_pool(Job& job, const std::string& pool_uuid, Pool_Info& pool)
{
  if (get_pool_info(pool_uuid, job.definition().target().device_id(), pool, false, 0, nullptr, true, nullptr,
                    nullptr, false))
    return pool_is_there(job, pool);
  raise_physical_alert(job, 11);
  ACE_ERROR((LM_ERROR, "Failed to get pool info.\n"));
  return false;
}

Client_IO_Base::Options storage_options(Storage_Side side, const Job_Definition& definition,
                                        Compression_Method method)
{
  Client_IO_Base::Options options;
  options.overwrite = true;
  options.compression_method = method;
  options.dedup_chunk_size = 1;
  set_options_by_job_def(options, definition, 1);
  if (side == Storage_Side::RESTORE)
    set_options_by_host(options);
  return options;
}

bool open_stored_file(Job& job, Storage_Side side, const Pool_Info& pool, const std::string& uri,
                      const std::string& file, Client_IO_Base::Options options, Client_IO_Ex& storage)
{
  const bool backup = side == Storage_Side::BACKUP;
  if (!set_options_by_pool(options, pool)) {
    raise_physical_alert(job, 12);
    ACE_ERROR((LM_ERROR, backup ? "Failed to set extra options.\n" : "Failed to set client options.\n"));
    return false;
  }
  if (backup) {
    set_options_by_host(options);
    // Names carry local time, which comes again when summer time ends or the clock is set back: a backup must
    // not take the place of an earlier one, on which others may build, whether that can be read just now or
    // not.
    options.overwrite = false;
  }
  if (!storage.connect(pool.storage_path + "/" + uri, options)) {
    raise_physical_alert(job, 13);
    ACE_ERROR((LM_ERROR, "Failed to connect to storage: %s.\n", storage.error()));
    return false;
  }
  if (storage.open(file, backup ? Client_IO_Ex::MODE_WRITE : Client_IO_Ex::MODE_READ, 0, 0))
    return true;
  if (backup && storage.name_taken())
    return open_failed(
        job, file, "a backup of this name is stored already. Its time has come a second time: run again.");
  return open_failed(job, file, storage.error() + std::string(backup ? "." : ""));
}
} // namespace oscar

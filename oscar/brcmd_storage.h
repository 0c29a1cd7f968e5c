#pragma once

#include "storage/client_io.h"
#include "storage/pool.h"

#include <string>

class Job;
class Job_Definition;

namespace oscar
{
/// How backup and restore by brcmd reach the stored files.
/// Threads: the job's.
/// Errors:  false = failed, alert raised and logged. The two sides word some messages and order the options
///          differently, which whoever watches the logs relies on.

enum class Storage_Side { BACKUP, RESTORE };

/// Whether the pool of this host carries its mark; that of another host is taken to be there. Without it
/// nothing was done yet: no instance needs to be stopped for a job that cannot store or read a byte.
[[nodiscard]] bool pool_is_there(Job& job, const Pool_Info& pool);

/// Address of a pool that is there. On failure `pool` is untouched, or that of the pool which is not there.
[[nodiscard]] bool find_pool(Job& job, const std::string& pool_uuid, Pool_Info& pool);

/// What the options hold before a pool is known. A reader does not go by the compression method: stored files
/// say themselves how they are compressed.
Client_IO_Base::Options storage_options(Storage_Side side, const Job_Definition& definition,
                                        Compression_Method method);

/// Connects to the folder `uri` of the pool and opens the file there: for writing in a backup, for reading in
/// a restore. A backup refuses to replace a whole file of the same name.
[[nodiscard]] bool open_stored_file(Job& job, Storage_Side side, const Pool_Info& pool,
                                    const std::string& uri, const std::string& file,
                                    Client_IO_Base::Options options, Client_IO_Ex& storage);
} // namespace oscar

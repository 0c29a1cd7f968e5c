#include "support/fault_vfs.h"

#include <sqlite3.h>

#include <cstring>
#include <mutex>

namespace kestrel_test
{
namespace
{
struct Fault {
  std::string kind;
  std::string only;
  unsigned left = 0;
  int result = SQLITE_OK;
  bool for_ever = false;
  bool met = false;
  bool read_only = false;
};

std::mutex mutex; // of the fault
Fault fault;
sqlite3_vfs* system_vfs = nullptr;
sqlite3_vfs vfs;

struct Wrapped_File {
  sqlite3_file base;
  sqlite3_file* real; ///< lies behind this structure
  bool concerned;     ///< meets faults
};

/// With the mutex.
bool concerns(const char* name)
{
  return fault.only.empty() || (name && std::strstr(name, fault.only.c_str()));
}

/// With the mutex.
int due(const char* kind)
{
  if (fault.kind != kind || fault.left == 0 || --fault.left != 0)
    return SQLITE_OK;
  fault.met = true;
  if (fault.for_ever)
    fault.left = 1;
  return fault.result;
}

int due(const char* kind, sqlite3_file* file)
{
  const std::lock_guard<std::mutex> guard(mutex);
  return reinterpret_cast<Wrapped_File*>(file)->concerned ? due(kind) : SQLITE_OK;
}

sqlite3_file* real(sqlite3_file* file)
{
  return reinterpret_cast<Wrapped_File*>(file)->real;
}

int close_file(sqlite3_file* file)
{
  return real(file)->pMethods->xClose(real(file));
}
int read_file(sqlite3_file* file, void* data, int count, sqlite3_int64 offset)
{
  const int result = due("read", file);
  return result ? result : real(file)->pMethods->xRead(real(file), data, count, offset);
}
int write_file(sqlite3_file* file, const void* data, int count, sqlite3_int64 offset)
{
  const int result = due("write", file);
  return result ? result : real(file)->pMethods->xWrite(real(file), data, count, offset);
}
int truncate_file(sqlite3_file* file, sqlite3_int64 size)
{
  const int result = due("truncate", file);
  return result ? result : real(file)->pMethods->xTruncate(real(file), size);
}
int sync_file(sqlite3_file* file, int flags)
{
  const int result = due("sync", file);
  return result ? result : real(file)->pMethods->xSync(real(file), flags);
}
int file_size(sqlite3_file* file, sqlite3_int64* size)
{
  return real(file)->pMethods->xFileSize(real(file), size);
}
int lock_file(sqlite3_file* file, int level)
{
  return real(file)->pMethods->xLock(real(file), level);
}
int unlock_file(sqlite3_file* file, int level)
{
  return real(file)->pMethods->xUnlock(real(file), level);
}
int check_lock(sqlite3_file* file, int* out)
{
  return real(file)->pMethods->xCheckReservedLock(real(file), out);
}
int control(sqlite3_file* file, int op, void* arg)
{
  return real(file)->pMethods->xFileControl(real(file), op, arg);
}
int sector_size(sqlite3_file* file)
{
  return real(file)->pMethods->xSectorSize(real(file));
}
int characteristics(sqlite3_file* file)
{
  return real(file)->pMethods->xDeviceCharacteristics(real(file));
}
int shm_map(sqlite3_file* file, int page, int size, int extend, void volatile** out)
{
  const int result = due("shm", file);
  return result ? result : real(file)->pMethods->xShmMap(real(file), page, size, extend, out);
}
int shm_lock(sqlite3_file* file, int offset, int count, int flags)
{
  return real(file)->pMethods->xShmLock(real(file), offset, count, flags);
}
void shm_barrier(sqlite3_file* file)
{
  real(file)->pMethods->xShmBarrier(real(file));
}
int shm_unmap(sqlite3_file* file, int remove)
{
  return real(file)->pMethods->xShmUnmap(real(file), remove);
}

const sqlite3_io_methods methods = {2,           close_file,  read_file,       write_file,  truncate_file,
                                    sync_file,   file_size,   lock_file,       unlock_file, check_lock,
                                    control,     sector_size, characteristics, shm_map,     shm_lock,
                                    shm_barrier, shm_unmap,   nullptr,         nullptr};

int open_file(sqlite3_vfs*, const char* name, sqlite3_file* file, int flags, int* out_flags)
{
  Wrapped_File* const wrapped = reinterpret_cast<Wrapped_File*>(file);
  wrapped->base.pMethods = nullptr;
  wrapped->real = reinterpret_cast<sqlite3_file*>(wrapped + 1);
  bool read_only = false;
  {
    const std::lock_guard<std::mutex> guard(mutex);
    wrapped->concerned = concerns(name);
    const int failure = wrapped->concerned ? due("open") : SQLITE_OK;
    if (failure)
      return failure;
    read_only = fault.read_only;
  }
  if (read_only && (flags & SQLITE_OPEN_MAIN_DB))
    flags = (flags & ~(SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE)) | SQLITE_OPEN_READONLY;
  const int result = system_vfs->xOpen(system_vfs, name, wrapped->real, flags, out_flags);
  if (wrapped->real->pMethods)
    wrapped->base.pMethods = &methods;
  return result;
}

int delete_file(sqlite3_vfs*, const char* name, int sync)
{
  int result = SQLITE_OK;
  {
    const std::lock_guard<std::mutex> guard(mutex);
    result = concerns(name) ? due("delete") : SQLITE_OK;
  }
  return result ? result : system_vfs->xDelete(system_vfs, name, sync);
}
} // namespace

Fault_Vfs::Fault_Vfs()
{
  fault = Fault();
  system_vfs = sqlite3_vfs_find(nullptr);
  vfs = *system_vfs;
  vfs.szOsFile = static_cast<int>(sizeof(Wrapped_File)) + system_vfs->szOsFile;
  vfs.zName = "kestrel-fault";
  vfs.pNext = nullptr;
  vfs.xOpen = open_file;
  vfs.xDelete = delete_file;
  sqlite3_vfs_register(&vfs, 1);
}

Fault_Vfs::~Fault_Vfs()
{
  sqlite3_vfs_unregister(&vfs);
  sqlite3_vfs_register(system_vfs, 1);
}

void Fault_Vfs::fail(const std::string& kind, unsigned number, int result, bool for_ever)
{
  const std::lock_guard<std::mutex> guard(mutex);
  fault.kind = kind;
  fault.left = number;
  fault.result = result;
  fault.for_ever = for_ever;
  fault.met = false;
}

void Fault_Vfs::heal()
{
  const std::lock_guard<std::mutex> guard(mutex);
  fault.left = 0;
}

void Fault_Vfs::only(const std::string& part)
{
  const std::lock_guard<std::mutex> guard(mutex);
  fault.only = part;
}

void Fault_Vfs::read_only(bool value)
{
  const std::lock_guard<std::mutex> guard(mutex);
  fault.read_only = value;
}

bool Fault_Vfs::met() const
{
  const std::lock_guard<std::mutex> guard(mutex);
  return fault.met;
}
} // namespace kestrel_test

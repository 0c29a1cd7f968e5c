#include "storage/pool.h"

#include <mutex>

namespace
{
std::mutex finder_lock;

kestrel::Pool_Finder& current_finder()
{
  static kestrel::Pool_Finder* finder = new kestrel::Pool_Finder;
  return *finder;
}
} // namespace

namespace kestrel
{
void set_pool_finder(Pool_Finder finder)
{
  std::lock_guard<std::mutex> guard(finder_lock);
  current_finder().swap(finder);
}
} // namespace kestrel

bool get_pool_info(const std::string& pool_id, const std::string& device_id, Pool_Info& info, bool, int,
                   void*, bool, void*, void*, bool)
{
  kestrel::Pool_Finder finder;
  {
    std::lock_guard<std::mutex> guard(finder_lock);
    finder = current_finder();
  }
  Pool_Info found;
  std::string error;
  if (!finder || !finder(pool_id, found, error))
    return false;
  found.device_id = device_id;
  info = found;
  return true;
}

bool set_options_by_pool(Client_IO_Base::Options& options, const Pool_Info& info)
{
  if (info.storage_path.empty() && info.host.empty())
    return false;
  options.back_end = info.back_end;
  options.storage_path = info.storage_path;
  options.host = info.host;
  options.port = info.port;
  options.tls = info.tls;
  return true;
}

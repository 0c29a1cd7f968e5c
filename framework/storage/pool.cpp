#include "storage/pool.h"

#include "storage/pool_registry.h"

#include <ace/Log_Msg.h>

#include <exception>
#include <mutex>

namespace kestrel
{
namespace
{
std::mutex finder_lock;

Pool_Finder& current_finder()
{
  static auto* finder = new Pool_Finder;
  return *finder;
}

} // namespace

bool look_up_pool(const std::string& pool_id, Pool_Info& info, std::string& error)
{
  Pool_Finder finder;
  {
    std::lock_guard<std::mutex> guard(finder_lock);
    finder = current_finder();
  }
  try {
    if (pool_id.empty())
      error = "no pool is named";
    else
      return finder ? finder(pool_id, info, error) : Pool_Registry().find(pool_id, info, error);
  } catch (const std::exception& failure) {
    error = failure.what();
  }
  return false;
}

void set_pool_finder(Pool_Finder finder)
{
  std::lock_guard<std::mutex> guard(finder_lock);
  current_finder().swap(finder);
}
} // namespace kestrel

bool get_pool_info(const std::string& pool_id, const std::string& device_id, Pool_Info& info, bool, int,
                   void*, bool, void*, void*, bool)
{
  Pool_Info found;
  std::string error;
  if (!kestrel::look_up_pool(pool_id, found, error)) {
    ACE_ERROR((LM_ERROR, "(%P|%t) get_pool_info: %C\n", error.c_str()));
    return false;
  }
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
  options.pool_marked = info.marked;
  options.host = info.host;
  options.port = info.port;
  options.tls = info.tls;
  return true;
}

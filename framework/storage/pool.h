#pragma once

#include "storage/client_io.h"

#include <functional>
#include <string>

/// One storage pool, as a job needs it: where its files lie and how to reach them.
/// A plain value; the text fields are UTF-8.
struct Pool_Info {
  std::string pool_id;
  std::string device_id;
  std::string name;
  /// Which back end serves the pool; "" is the directory on this host.
  std::string back_end;
  /// Absolute directory of the pool, without a slash at the end.
  std::string storage_path;
  /// Whether that directory carries a mark, without which it is not used (storage/pool_mark.h).
  bool marked = false;
  std::string host;
  unsigned short port = 0;
  bool tls = false;
};

/// Looks the pool up by its id. `device_id` is carried into the result and does not take part in the search.
/// The other arguments are reserved: callers pass (false, 0, nullptr, true, nullptr, nullptr, false). Returns
/// true and fills `info`; false (logged once at LM_ERROR, `info` untouched) when the id is empty or unknown,
/// or when the list of pools cannot be read.
[[nodiscard]] bool get_pool_info(const std::string& pool_id, const std::string& device_id, Pool_Info& info,
                                 bool, int, void*, bool, void*, void*, bool);

/// Copies the pool's address into `options`. Returns false, with `options` untouched, when the pool has
/// neither a storage path nor a host.
[[nodiscard]] bool set_options_by_pool(Client_IO_Base::Options& options, const Pool_Info& info);

namespace kestrel
{
/// The same look-up, with `error` in place of the log line and without the device.
[[nodiscard]] bool look_up_pool(const std::string& pool_id, Pool_Info& info, std::string& error);

/// Finds a pool by its id: true and `info` filled (device_id excepted), or false and `error` filled.
typedef std::function<bool(const std::string& pool_id, Pool_Info& info, std::string& error)> Pool_Finder;

/// Lets a host say where pools are looked up; an empty finder restores the default, the registry of this
/// host. Any thread; look-ups already running finish with the old finder.
void set_pool_finder(Pool_Finder finder);
} // namespace kestrel

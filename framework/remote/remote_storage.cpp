#include "remote/remote_storage.h"

#include "base/scope_guard.h"
#include "remote/remote_files.h"
#include "storage/directory_back_end.h"

#include <algorithm>
#include <cerrno>
#include <exception>

namespace kestrel
{
const char SERVER_STORAGE[] = "server";

namespace
{
const unsigned USUAL_PIECE_BYTES = 4u << 20;
const unsigned LEAST_PIECE_BYTES = 64u << 10;
const unsigned MOST_PIECE_BYTES = 8u << 20;

/// A request of a few bytes, repeated until it worked or the time is over. All of them may be repeated.
bool ask(const Storage_Link& link, const char* method, const std::vector<std::string>& path, std::string& error)
{
  try {
    REST_Call call;
    call.method = method;
    call.path = rest_path(path);
    call.seconds = link.transfer_seconds;
    call.retry = {link.retry_seconds, true};
    json_spirit::Value reply;
    REST_Problem problem;
    if (link.client->call(call, nullptr, reply, problem))
      return true;
    error = problem.text;
  } catch (const std::exception& failure) {
    error = failure.what();
  }
  return false;
}
} // namespace

bool is_passing(const REST_Problem& problem)
{
  switch (problem.kind) {
  case REST_Problem::unreachable:
  case REST_Problem::lost:
    return true;
  case REST_Problem::busy:
    return problem.status == 429 || problem.status == 502 || problem.status == 503 || problem.status == 504;
  default:
    return false;
  }
}

Remote_Back_End::Remote_Back_End(std::shared_ptr<REST_Client> client, unsigned transfer_seconds)
{
  link_.client = std::move(client);
  link_.transfer_seconds = transfer_seconds;
}

bool Remote_Back_End::connect(const std::string& location, const Client_IO_Base::Options& options,
                              std::string& error)
{
  const std::string& pool = options.storage_path;
  if (pool.size() < 2 || location.size() < pool.size() + 2 || location.compare(0, pool.size() + 1, pool + "/") != 0) {
    error = "\"" + location + "\" is not a folder of a pool of the backup server";
    return false;
  }
  Storage_Link link = link_;
  link.pool_id = pool.substr(1);
  link.folder = location.substr(pool.size() + 1);
  link.retry_seconds = options.max_seconds_retry != 0 ? options.max_seconds_retry : DEFAULT_RETRY_SECONDS;
  link.piece_bytes = options.resumption_buffer_size == 0
                         ? USUAL_PIECE_BYTES
                         : std::clamp(options.resumption_buffer_size, LEAST_PIECE_BYTES, MOST_PIECE_BYTES);
  if (!ask(link, "GET", {"storage", link.pool_id, link.folder}, error)) {
    error = "cannot use the pool " + link.pool_id + ": " + error;
    return false;
  }
  link_ = link;
  return true;
}

std::unique_ptr<Stored_File_Writer> Remote_Back_End::create(const std::string& name, bool overwrite,
                                                            std::string& error)
{
  errno = EINVAL;
  if (!is_stored_file_name(name, error))
    return nullptr;
  return create_remote_file(link_, name, overwrite, error);
}

std::unique_ptr<Stored_File_Reader> Remote_Back_End::open(const std::string& name, std::string& error)
{
  errno = EINVAL;
  if (!is_stored_file_name(name, error))
    return nullptr;
  return open_remote_file(link_, name, error);
}

bool Remote_Back_End::remove(const std::string& name, std::string& error)
{
  if (!is_stored_file_name(name, error))
    return false;
  return ask(link_, "DELETE", {"storage", link_.pool_id, link_.folder, name}, error);
}
} // namespace kestrel

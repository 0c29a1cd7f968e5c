#include "oscar/storage_options.h"

#include "base/ignore_result.h"
#include "jobs/job_definition.h"
#include "storage/host_manager.h"

namespace
{
constexpr int HTTP_HEAD_ACCESS_KEY = 49;
}

bool set_http_head_to_options(Client_IO_Base::Options& options, int head, const std::string& value)
{
  const char* const name = http_head_string(head, 0);
  return name && options.set_extra_option(name, value);
}

void set_access_key_to_options(Client_IO_Base::Options& options, const std::string& key)
{
  kestrel::ignore_result(set_http_head_to_options(options, HTTP_HEAD_ACCESS_KEY, key),
                         "the storage side decides about a connection without the header");
}

void set_options_by_host(Client_IO_Base::Options& options)
{
  const Host_Manager* const host = Host_Manager::instance();
  const char* const key = host->on_backupd() ? host->node_access_key() : host->access_key();
  set_access_key_to_options(options, key ? key : "");
}

void set_options_by_job_def(Client_IO_Base::Options& options, const Job_Definition& def, unsigned channels)
{
  options.max_seconds_retry = def.max_seconds_retry();
  options.resumption_buffer_size = def.resumption_buffer_size();
  options.rate_limits = def.rate_limits();
  options.rate_limits.set_rate_limits_by_channels(channels);
  options.server_side_dedup = def.server_side_dedup();
}

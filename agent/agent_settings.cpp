#include "agent/agent_settings.h"

#include "base/path_conf.h"
#include "remote/rest_client.h"

#include <unistd.h>

namespace kestrel
{
namespace
{
std::string network_name()
{
  char name[256] = "";
  return ::gethostname(name, sizeof name - 1) == 0 && name[0] ? name : "localhost";
}
} // namespace

std::string agent_config_path()
{
  return state_path("agent.toml");
}

bool read_agent_settings(const Agent_Settings_Source& source, Agent_Settings& settings, std::string& error)
{
  Agent_Settings read;
  if (!load_agent_config(source.config.empty() ? agent_config_path() : source.config, read.config, error))
    return false;
  const bool enrolled = source.enrollment.empty()
                            ? load_server_key(read.key, error)
                            : read_enrollment(source.enrollment, read.key, read.fresh_key, error);
  if (!enrolled)
    return false;
  read.url = !source.server_url.empty() ? source.server_url : read.config.server_url;
  if (read.url.empty())
    read.url = read.key.url;
  std::string host;
  unsigned short port = 0;
  if (!read.url.empty() && !parse_server_url(read.url, host, port, error))
    return false;
  if (!read.url.empty() && !read.key.enrolled()) {
    error = "this host is not enrolled at " + read.url +
            ": run 'kestrel server enroll' there and start the agent once with --enrollment FILE";
    return false;
  }
  settings = read;
  return true;
}

std::string Agent_Settings::name() const
{
  return !config.name.empty() ? config.name : key.enrolled() ? key.name : network_name();
}

TLS_Client_Options Agent_Settings::tls() const
{
  TLS_Client_Options options;
  if (config.ca_file.empty())
    options.ca_pem = key.ca_pem;
  else
    options.ca_file = config.ca_file;
  return options;
}

bool Agent_Settings::same_connection(const Agent_Settings& other) const
{
  return url == other.url && access() == other.access() && config.ca_file == other.config.ca_file &&
         key.ca_pem == other.key.ca_pem;
}

bool Agent_Settings::can_become(const Agent_Settings& next, std::string& error) const
{
  // Its identity stands in what jobs and instances have recorded, and without a server no record waits to be
  // reported.
  if (key.host_uuid != next.key.host_uuid) {
    error =
        (!next.key.enrolled() ? std::string("this host is not enrolled any more")
         : key.enrolled() ? "this host is now enrolled as " + next.key.name + " (" + next.key.host_uuid + ")"
                          : "this host was enrolled at " + next.key.url) +
        "; restart the agent to work with that";
    return false;
  }
  if (next.url.empty() || same_connection(next))
    return true;
  std::string problem;
  if (TLS_Client_Context::create(next.tls(), problem))
    return true;
  error = "no connection to " + next.url + " could be made with them: " + problem;
  return false;
}
} // namespace kestrel

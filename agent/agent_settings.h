#pragma once

#include "agent/agent_config.h"
#include "agent/server_key.h"
#include "rpc/tls.h"

#include <string>

namespace kestrel
{
/// Where the settings of an agent come from.
struct Agent_Settings_Source {
  std::string server_url; ///< instead of the one in agent.toml and in the enrollment
  std::string enrollment; ///< file to take over; empty: the enrollment that this host keeps
  std::string config;     ///< empty: agent.toml of the state directory
};

/// What agent.toml, the enrollment and the command line say together. Threads: a plain value.
struct Agent_Settings {
  Agent_Config config;
  Server_Key key;
  bool fresh_key = false; ///< it is not kept yet
  std::string url;        ///< empty: this host works alone

  /// Of this host: as configured, as enrolled, or its name in the network.
  std::string name() const;
  /// The value of the access key header; empty without an enrollment. A secret.
  std::string access() const { return key.enrolled() ? key.header() : ""; }
  TLS_Client_Options tls() const;
  bool same_connection(const Agent_Settings& other) const;
  /// Whether an agent that runs with these can go on with `next`; false with a sentence in `error`, which
  /// says what to do. Changes nothing.
  [[nodiscard]] bool can_become(const Agent_Settings& next, std::string& error) const;
};

/// Reads all of them; false with a sentence in `error`, and `settings` untouched. A fresh enrollment is read
/// and not kept.
[[nodiscard]] bool read_agent_settings(const Agent_Settings_Source& source, Agent_Settings& settings,
                                       std::string& error);

/// Where agent.toml lies unless another file is named.
std::string agent_config_path();
} // namespace kestrel

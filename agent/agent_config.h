#pragma once

#include <ace/Log_Priority.h>

#include <map>
#include <string>
#include <vector>

namespace kestrel
{
/// A service object of a module: the name of its factory and the words that its init() gets.
struct Service_Line {
  std::string factory;
  std::vector<std::string> words;

  bool operator==(const Service_Line& other) const
  {
    return factory == other.factory && words == other.words;
  }
};

/// What one module is used for. A job type is "backup" or "restore", or a type and one subtype,
/// "backup/export".
struct Module_Config {
  std::string name;
  std::string path; ///< empty or without a slash: a file of this installation, found from the running program
  std::map<std::string, Service_Line> rpc;             ///< by JSON-RPC method
  std::map<std::string, Service_Line> jobs;            ///< creators, by job type
  std::map<std::string, Service_Line> source_parsers;  ///< by job type
  std::map<std::string, Service_Line> options_parsers; ///< by job type
  std::vector<Service_Line> instance_handlers;

  bool operator==(const Module_Config& other) const;
};

/// The settings of an agent, from agent.toml. What the file does not say has the values below.
/// Threads: plain values.
struct Agent_Config {
  static constexpr unsigned max_module_count = 32;

  std::string name; ///< of this host on consoles; empty: its network name
  ACE_Log_Priority log_level = LM_INFO;
  std::string server_url;      ///< https://host:port; empty: the agent works alone or as it was enrolled
  std::string ca_file;         ///< PEM file; empty: the certificate that came with the enrollment
  unsigned probe_minutes = 10; ///< 1 to 1440
  unsigned max_concurrent = 2; ///< runs at once, 1 to 64
  unsigned history_days = 90;  ///< 1 to 3650
  bool cancel_at_stop = false; ///< a stopping agent cancels its runs at once instead of waiting for them
  unsigned stop_seconds = 300; ///< how long a stopping agent waits for its runs, 0 to 86400
  std::vector<Module_Config> modules;
};

/// What a running agent takes over of settings that were read again: all but this host's name, the limits of
/// its jobs and its modules. `restart` becomes the keys of those that have changed and count with the next
/// start.
Agent_Config reloaded_config(const Agent_Config& now, const Agent_Config& next,
                             std::vector<std::string>& restart);

/// The settings without a file: the one module of this installation with all that it offers.
Agent_Config default_agent_config();

/// Reads the settings.
/// Errors: false with `error` naming file, line, key and what is allowed; `config` is untouched then. A
///         file that does not exist gives the defaults; a key that is not known is an error.
[[nodiscard]] bool load_agent_config(const std::string& path, Agent_Config& config, std::string& error);
/// The same for text; `path` only names it in errors.
[[nodiscard]] bool parse_agent_config(const std::string& text, const std::string& path, Agent_Config& config,
                                      std::string& error);
} // namespace kestrel

#include "agent/agent_config.h"

#include "base/durable_file.h"

#include <cerrno>

namespace kestrel
{
Agent_Config default_agent_config()
{
  Module_Config module;
  module.name = "oscar";
  module.path = "oscar.so";
  module.rpc = {{"oscar.list", {"JSON_RPC_Oscar_List_Handler", {}}},
                {"oscar.node.check_state", {"JSON_RPC_Oscar_Node_Handler", {}}},
                {"oscar.node.notify_selected", {"JSON_RPC_Oscar_Notify_Node_Handler", {}}}};
  module.jobs = {{"backup", {"Oscar_Job_Creator", {}}}, {"restore", {"Oscar_Job_Creator", {}}}};
  module.source_parsers = {{"backup", {"Oscar_Backup_Job_Source_Parser_Creator", {}}},
                           {"restore", {"Oscar_Restore_Job_Source_Parser_Creator", {}}}};
  module.options_parsers = {{"backup", {"Oscar_Backup_Job_Options_Parser_Creator", {}}},
                            {"restore", {"Oscar_Restore_Job_Options_Parser_Creator", {}}}};
  module.instance_handlers = {{"Oscar_Instance_Handler", {}}};
  Agent_Config config;
  config.modules.push_back(module);
  return config;
}

bool load_agent_config(const std::string& path, Agent_Config& config, std::string& error)
{
  std::string text;
  std::string problem;
  if (!read_whole_file(path, text, problem, 1u << 20)) {
    if (errno == ENOENT) {
      config = default_agent_config();
      return true;
    }
    error = problem;
    return false;
  }
  return parse_agent_config(text, path, config, error);
}

bool parse_agent_config(const std::string& text, const std::string& path, Agent_Config& config,
                        std::string& error)
{
  if (!text.empty()) {
    error = path + ": settings are not read yet; remove the file to use the defaults";
    return false;
  }
  config = default_agent_config();
  return true;
}
} // namespace kestrel

#include "agent/agent_config.h"

#include "base/durable_file.h"
#include "jobs/job_types.h"

#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/predicate.hpp>
#include <boost/algorithm/string/split.hpp>
#include <boost/algorithm/string/trim.hpp>
#include <toml++/toml.h>

#include <cctype>
#include <cerrno>
#include <functional>
#include <stdexcept>

namespace kestrel
{
namespace
{
constexpr size_t max_file_bytes = 1u << 20;
constexpr size_t max_text_bytes = 1024;

typedef std::function<void(const toml::node& value, const std::string& key)> Reader;

[[noreturn]] void refuse(const toml::node& where, const std::string& key, const std::string& reason)
{
  throw std::runtime_error(std::to_string(where.source().begin.line) + ": " + key + ": " + reason);
}

const toml::table& table_of(const toml::node& node, const std::string& key)
{
  if (!node.is_table())
    refuse(node, key, "must be a table, [" + key + "]");
  return *node.as_table();
}

/// Every key of the table goes to its reader; a key without one is refused.
void read_table(const toml::table& table, const std::string& path,
                const std::map<std::string, Reader>& readers)
{
  for (const auto& entry : table) {
    const std::string name(entry.first.str());
    const std::string key = path.empty() ? name : path + "." + name;
    const auto reader = readers.find(name);
    if (reader == readers.end()) {
      std::string known;
      for (const auto& each : readers)
        known += known.empty() ? each.first : ", " + each.first;
      refuse(entry.second, key, "is not known; known here are " + known);
    }
    reader->second(entry.second, key);
  }
}

std::string text_of(const toml::node& node, const std::string& key, const char* wanted)
{
  const auto value = node.value_exact<std::string>();
  if (!value || value->size() > max_text_bytes || value->find('\0') != std::string::npos)
    refuse(node, key, std::string("must be a text in quotes, ") + wanted + ", of at most 1024 characters");
  return *value;
}

Reader text_reader(std::string& target, const char* wanted)
{
  return [&target, wanted](const toml::node& node, const std::string& key) {
    target = text_of(node, key, wanted);
  };
}

Reader number_reader(unsigned& target, unsigned least, unsigned most)
{
  return [&target, least, most](const toml::node& node, const std::string& key) {
    const auto value = node.value_exact<int64_t>();
    if (!value || *value < static_cast<int64_t>(least) || *value > static_cast<int64_t>(most))
      refuse(node, key,
             "must be a whole number from " + std::to_string(least) + " to " + std::to_string(most));
    target = static_cast<unsigned>(*value);
  };
}

void read_log_level(const toml::node& node, const std::string& key, ACE_Log_Priority& level)
{
  static const std::map<std::string, ACE_Log_Priority> levels = {{"debug", LM_DEBUG},
                                                                 {"info", LM_INFO},
                                                                 {"notice", LM_NOTICE},
                                                                 {"warning", LM_WARNING},
                                                                 {"error", LM_ERROR}};
  const char wanted[] = "one of debug, info, notice, warning, error";
  const auto found = levels.find(text_of(node, key, wanted));
  if (found == levels.end())
    refuse(node, key, std::string("must be ") + wanted);
  level = found->second;
}

void read_stop(const toml::node& node, const std::string& key, bool& cancel)
{
  const std::string text = text_of(node, key, "\"wait\" or \"cancel\"");
  if (text != "wait" && text != "cancel")
    refuse(node, key, "must be \"wait\" or \"cancel\"");
  cancel = text == "cancel";
}

void read_url(const toml::node& node, const std::string& key, std::string& url)
{
  const std::string text = text_of(node, key, "https://HOST:PORT");
  const size_t host = std::string("https://").size();
  if (!text.empty() && (!boost::starts_with(text, "https://") || text.size() == host ||
                        text.find_first_of(" \t@/?#", host) != std::string::npos))
    refuse(node, key, "must be of the form https://HOST:PORT, without a path and without a user");
  url = text;
}

/// "Factory word word", or a list when a word has blanks in it.
Service_Line line_of(const toml::node& node, const std::string& key)
{
  const char wanted[] = "a factory's name and its words, or a list of them";
  std::vector<std::string> words;
  if (const toml::array* const list = node.as_array()) {
    for (const toml::node& word : *list)
      words.push_back(text_of(word, key, wanted));
  } else {
    const std::string text = boost::trim_copy(text_of(node, key, wanted));
    if (!text.empty())
      boost::split(words, text, boost::is_any_of(" \t"), boost::token_compress_on);
  }
  Service_Line line;
  if (!words.empty())
    line.factory = words.front();
  for (const char c : line.factory)
    if (!std::isalnum(static_cast<unsigned char>(c)) && c != '_')
      line.factory.clear();
  if (line.factory.empty())
    refuse(node, key,
           std::string("must be ") + wanted + "; a factory's name is made of letters, digits and _");
  line.words.assign(words.begin() + 1, words.end());
  return line;
}

void check_job_kind(const toml::node& node, const std::string& key, const std::string& kind)
{
  const size_t slash = kind.find('/');
  Job_Definition_Type type = JOB_DEFINITION_NONE;
  Job_Definition_Subtype subtype = JOB_DEFINITION_SUBTYPE_NONE;
  if (!job_def_type_from_text(kind.substr(0, slash), type) || type == JOB_DEFINITION_NONE ||
      (slash != std::string::npos && !job_def_subtype_from_text(kind.substr(slash + 1), subtype)))
    refuse(node, key,
           "is no type of job; a type is one of " + job_def_type_names() +
               " but none, or TYPE/SUBTYPE with one of " + job_def_subtype_names());
}

/// A table of lines by JSON-RPC method or by type of job.
Reader lines_reader(std::map<std::string, Service_Line>& lines, bool by_job_kind)
{
  return [&lines, by_job_kind](const toml::node& node, const std::string& key) {
    for (const auto& entry : table_of(node, key)) {
      const std::string name(entry.first.str());
      const std::string entry_key = key + "." + name;
      if (by_job_kind)
        check_job_kind(entry.second, entry_key, name);
      lines[name] = line_of(entry.second, entry_key);
    }
  };
}

void read_instances(const toml::node& node, const std::string& key, std::vector<Service_Line>& handlers)
{
  read_table(table_of(node, key), key,
             {{"handler", [&](const toml::node& value, const std::string& handler_key) {
                 handlers.push_back(line_of(value, handler_key));
               }}});
}

Module_Config read_module(const toml::table& table)
{
  Module_Config module;
  read_table(table, "module",
             {{"name", text_reader(module.name, "the module's name")},
              {"path", text_reader(module.path, "the module's file")},
              {"rpc", lines_reader(module.rpc, false)},
              {"jobs", lines_reader(module.jobs, true)},
              {"source_parsers", lines_reader(module.source_parsers, true)},
              {"options_parsers", lines_reader(module.options_parsers, true)},
              {"instances", [&](const toml::node& node, const std::string& key) {
                 read_instances(node, key, module.instance_handlers);
               }}});
  if (module.name.empty())
    refuse(table, "module.name", "is missing or empty; every module needs a name");
  if (module.path.empty())
    refuse(table, "module.path", "is missing or empty; name a file of this installation or a path");
  return module;
}

void read_modules(const toml::node& node, const std::string& key, std::vector<Module_Config>& modules)
{
  const toml::array* const list = node.as_array();
  if (!list || !list->is_array_of_tables())
    refuse(node, key, "must be tables of the form [[module]]");
  if (list->size() > Agent_Config::max_module_count)
    refuse(node, key, "there may be " + std::to_string(Agent_Config::max_module_count) + " modules at most");
  modules.clear();
  std::map<std::string, std::string> owners;
  for (const toml::node& each : *list) {
    const Module_Config module = read_module(*each.as_table());
    for (const Module_Config& other : modules)
      if (other.name == module.name)
        refuse(each, "module.name", "\"" + module.name + "\" stands there twice");
    for (const auto& method : module.rpc)
      if (!owners.emplace("method " + method.first, module.name).second)
        refuse(each, "module.rpc." + method.first,
               "belongs to the module " + owners["method " + method.first]);
    for (const auto& kind : module.jobs)
      if (!owners.emplace("jobs " + kind.first, module.name).second)
        refuse(each, "module.jobs." + kind.first, "belongs to the module " + owners["jobs " + kind.first]);
    modules.push_back(module);
  }
}

Agent_Config read_config(const toml::table& file)
{
  Agent_Config config = default_agent_config();
  const auto section = [](std::map<std::string, Reader> readers) -> Reader {
    return [readers](const toml::node& node, const std::string& key) {
      read_table(table_of(node, key), key, readers);
    };
  };
  read_table(
      file, "",
      {{"agent", section({{"name", text_reader(config.name, "this host's name")},
                          {"log_level",
                           [&](const toml::node& node, const std::string& key) {
                             read_log_level(node, key, config.log_level);
                           }}})},
       {"server", section({{"url", [&](const toml::node& node,
                                       const std::string& key) { read_url(node, key, config.server_url); }},
                           {"ca_file", text_reader(config.ca_file, "a PEM file")}})},
       {"instances", section({{"probe_minutes", number_reader(config.probe_minutes, 1, 1440)}})},
       {"jobs",
        section({{"max_concurrent", number_reader(config.max_concurrent, 1, 64)},
                 {"history_days", number_reader(config.history_days, 1, 3650)},
                 {"stop", [&](const toml::node& node,
                              const std::string& key) { read_stop(node, key, config.cancel_at_stop); }},
                 {"stop_seconds", number_reader(config.stop_seconds, 0, 86400)}})},
       {"module",
        [&](const toml::node& node, const std::string& key) { read_modules(node, key, config.modules); }}});
  return config;
}
} // namespace

bool Module_Config::operator==(const Module_Config& other) const
{
  return name == other.name && path == other.path && rpc == other.rpc && jobs == other.jobs &&
         source_parsers == other.source_parsers && options_parsers == other.options_parsers &&
         instance_handlers == other.instance_handlers;
}

Agent_Config reloaded_config(const Agent_Config& now, const Agent_Config& next,
                             std::vector<std::string>& restart)
{
  Agent_Config taken = next;
  restart.clear();
  const auto keep = [&](auto member, const char* key) {
    if (now.*member == next.*member)
      return;
    restart.push_back(key);
    taken.*member = now.*member;
  };
  keep(&Agent_Config::name, "agent.name");
  keep(&Agent_Config::max_concurrent, "jobs.max_concurrent");
  keep(&Agent_Config::history_days, "jobs.history_days");
  keep(&Agent_Config::modules, "module");
  return taken;
}

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
  if (!read_whole_file(path, text, problem, max_file_bytes)) {
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
  try {
    config = read_config(toml::parse(text, path));
    return true;
  } catch (const toml::parse_error& problem) {
    error = path + ":" + std::to_string(problem.source().begin.line) +
            ": not TOML: " + std::string(problem.description());
  } catch (const std::exception& problem) {
    error = path + ":" + problem.what();
  }
  return false;
}
} // namespace kestrel

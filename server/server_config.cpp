#include "server/server_config.h"

#include "base/durable_file.h"
#include "server/tls_setup.h"

#include <toml++/toml.h>

#include <functional>
#include <map>
#include <sstream>

namespace kestrel
{
namespace
{
struct Config_Error {
  std::string text;
  toml::source_position at;
};

/// What a key takes over its value with; throws a Config_Error text.
typedef std::function<void(const toml::node&)> Setter;
typedef std::map<std::string, Setter> Section;

Setter text_setter(std::string& into)
{
  return [&into](const toml::node& node) {
    const auto value = node.value_exact<std::string>();
    if (!value)
      throw Config_Error{"must be a text in quotation marks", node.source().begin};
    into = *value;
  };
}

Setter bool_setter(bool& into)
{
  return [&into](const toml::node& node) {
    const auto value = node.value_exact<bool>();
    if (!value)
      throw Config_Error{"must be true or false", node.source().begin};
    into = *value;
  };
}

template <class Number> Setter number_setter(Number& into, int64_t least, int64_t most)
{
  return [&into, least, most](const toml::node& node) {
    const auto value = node.value_exact<int64_t>();
    if (!value || *value < least || *value > most)
      throw Config_Error{"must be a whole number from " + std::to_string(least) + " to " +
                             std::to_string(most),
                         node.source().begin};
    into = static_cast<Number>(*value);
  };
}

std::map<std::string, Section> sections_of(Server_Config& config)
{
  return {
      {"server",
       {{"address", text_setter(config.address)},
        {"port", number_setter(config.port, 0, 65535)},
        {"url", text_setter(config.url)},
        {"plain", bool_setter(config.plain)},
        {"workers", number_setter(config.workers, 2, 256)}}},
      {"tls", {{"certificate", text_setter(config.certificate_file)}, {"key", text_setter(config.key_file)}}},
      {"limits",
       {{"connections", number_setter(config.limits.connections, 1, 65536)},
        {"connections_per_address", number_setter(config.limits.connections_per_address, 1, 65536)}}},
      {"sessions", {{"hours", number_setter(config.session_hours, 1, 24 * 30)}}},
      {"cluster", {{"window_seconds", number_setter(config.cluster_window_seconds, 1, 60)}}},
      {"keep",
       {{"audit_days", number_setter(config.keep_audit_days, 1, 36500)},
        {"run_days", number_setter(config.keep_run_days, 1, 36500)}}}};
}

void set_all(const toml::table& table, const std::map<std::string, Section>& sections)
{
  for (const auto& [name, node] : table) {
    const std::string section_name(name.str());
    const auto section = sections.find(section_name);
    if (section == sections.end() || !node.is_table())
      throw Config_Error{"'" + section_name + "' is no section of this file", node.source().begin};
    for (const auto& [key, value] : *node.as_table()) {
      const std::string key_name(key.str());
      const auto setter = section->second.find(key_name);
      if (setter == section->second.end())
        throw Config_Error{"'" + key_name + "' is no key of [" + section_name + "]", value.source().begin};
      try {
        setter->second(value);
      } catch (Config_Error& error) {
        error.text = "'" + key_name + "' of [" + section_name + "] " + error.text;
        throw;
      }
    }
  }
}

std::string where(const std::string& path, const toml::source_position& at)
{
  return path + ", line " + std::to_string(at.line) + ": ";
}
} // namespace

bool Server_Config::read(const std::string& path, std::string& error)
{
  std::string text;
  return read_whole_file(path, text, error, 1u << 20) && parse(text, path, error);
}

bool Server_Config::parse(const std::string& text, const std::string& path, std::string& error)
{
  Server_Config fresh;
  try {
    set_all(toml::parse(text, path), sections_of(fresh));
  } catch (const toml::parse_error& failed) {
    error = where(path, failed.source().begin) + std::string(failed.description());
    return false;
  } catch (const Config_Error& failed) {
    error = where(path, failed.at) + failed.text;
    return false;
  }
  if (!is_numeric_address(fresh.address)) {
    error = path + ": 'address' of [server] must be a numeric address to listen on, such as \"0.0.0.0\"";
    return false;
  }
  if (fresh.certificate_file.empty() != fresh.key_file.empty()) {
    error = path + ": [tls] needs both 'certificate' and 'key', or neither";
    return false;
  }
  *this = fresh;
  return true;
}
} // namespace kestrel

#include "lab/common/instance_files.h"

#include "lab/common/text.h"

#include <algorithm>
#include <cctype>
#include <dirent.h>
#include <unistd.h>

namespace oscar_lab
{

namespace
{

constexpr const char* virtual_address_key = "ha_server_ip_address";
constexpr const char* node_address_key = "ha_node_address";

std::string without_quotes(const std::string& value)
{
  const auto begin = value.find_first_not_of('\'');
  return begin == std::string::npos ? std::string()
                                    : value.substr(begin, value.find_last_not_of('\'') + 1 - begin);
}

} // namespace

Instance_Files::Instance_Files(const std::string& oscar_home, const std::string& instance)
    : home(oscar_home), name(to_upper(instance))
{
  const auto good = [](char c) { return std::isalnum(static_cast<unsigned char>(c)) || c == '_'; };
  if (name.empty() || name.size() > max_instance_name || !std::isalpha(static_cast<unsigned char>(name[0])) ||
      !std::all_of(name.begin(), name.end(), good))
    throw Usage_Failure("an instance name is a letter and at most 25 more letters, digits or underscores");
}

void Instance_Files::require_existing() const
{
  if (!is_regular_file(conf()) || !is_directory(directory()))
    throw Failure("instance " + name + " does not exist in " + home);
}

Instance_Conf read_conf(const Instance_Files& files)
{
  Instance_Conf conf;
  bool port_seen = false;
  for (const std::string& line : split_lines(read_file(files.conf()))) {
    const auto equals = line.find('=');
    if (equals == std::string::npos || starts_with(trim(line), "#"))
      continue;
    const std::string key = to_lower(trim(line.substr(0, equals)));
    const std::string value = trim(line.substr(equals + 1));
    if (key == "port") {
      std::uint64_t port = 0;
      if (!parse_number(value, 65535, port) || port == 0)
        throw Failure("bad port in " + files.conf());
      conf.port = static_cast<std::uint16_t>(port);
      port_seen = true;
    } else if (key == "archivelog") {
      conf.archive_log = to_lower(value) == "on";
    } else if (key == virtual_address_key) {
      conf.virtual_address = without_quotes(value);
    } else if (key == node_address_key) {
      conf.node_address = without_quotes(value);
    }
  }
  if (!port_seen)
    throw Failure("no port in " + files.conf());
  return conf;
}

void write_conf(const Instance_Files& files, const Instance_Conf& conf)
{
  replace_file(files.conf(),
               "# Instance " + files.name + "\nport = " + std::to_string(conf.port) +
                   "\narchivelog = " + (conf.archive_log ? "on" : "off") + "\n",
               0644);
}

void write_cluster_addresses(const Instance_Files& files, const Instance_Conf& conf)
{
  std::string text;
  for (const std::string& line : split_lines(read_file(files.conf()))) {
    const std::string key = to_lower(trim(line.substr(0, line.find('='))));
    if (key != virtual_address_key && key != node_address_key)
      text += line + "\n";
  }
  for (const auto& entry : {std::make_pair(virtual_address_key, conf.virtual_address),
                            std::make_pair(node_address_key, conf.node_address)})
    if (!entry.second.empty())
      text += std::string(entry.first) + " = '" + entry.second + "'\n";
  replace_file(files.conf(), text, 0644);
}

std::string path_of_this_program()
{
  std::string path = read_link("/proc/self/exe");
  const std::string deleted = " (deleted)"; // the file was replaced while the program runs
  if (ends_with(path, deleted))
    path.resize(path.size() - deleted.size());
  return path;
}

std::string home_of_this_tool()
{
  return parent_directory(parent_directory(path_of_this_program()));
}

std::vector<Tablespace> tablespaces_of(const std::string& data_directory)
{
  std::vector<Tablespace> tablespaces;
  const std::string links = data_directory + "/pg_tblspc";
  DIR* const directory = ::opendir(links.c_str());
  if (!directory)
    return tablespaces;
  while (const dirent* const entry = ::readdir(directory)) {
    const std::string oid = entry->d_name;
    if (oid.find_first_not_of("0123456789") == std::string::npos)
      tablespaces.push_back(Tablespace{oid, read_link(links + "/" + oid)});
  }
  ::closedir(directory);
  std::sort(tablespaces.begin(), tablespaces.end(),
            [](const Tablespace& a, const Tablespace& b) { return std::stoul(a.oid) < std::stoul(b.oid); });
  return tablespaces;
}

std::string datafile_of(const std::string& tablespace_location)
{
  return ends_with(tablespace_location, ".d") ? tablespace_location.substr(0, tablespace_location.size() - 2)
                                              : tablespace_location + ".dbf";
}

} // namespace oscar_lab

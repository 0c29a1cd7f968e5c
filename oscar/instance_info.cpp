#include "oscar/instance_info.h"

#include "base/ace_ifstream.h"
#include "base/files.h"
#include "base/ignore_result.h"
#include "base/network_interface.h"
#include "instances/instance_manager.h"
#include "oscar/guarded_regex.h"
#include "oscar/instance_file.h"
#include "oscar/oscar_argument_check.h"
#include "oscar/oscar_cmd_handler.h"
#include "oscar/utils.h"

#include <ace/Log_Msg.h>
#include <boost/algorithm/string.hpp>

#include <cerrno>
#include <fcntl.h>
#include <memory>
#include <new>

namespace
{
const char Service_Filter[] = "oscar\\s+.*-d\\s+\\S+.*";
const boost::regex Service_Command("\\s*(\\S*oscar)\\s+.*-d\\s+(\\S+).*");

// The text before the last separator; empty when there is none.
std::string directory_part(const std::string& path)
{
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? std::string() : path.substr(0, slash);
}

std::string without_quotes(const std::string& name)
{
  if (name.size() >= 3 && name.front() == '"' && name.back() == '"')
    return name.substr(1, name.size() - 2);
  return name;
}

// False when the service is to be skipped; the reason is logged.
bool read_service(const std::string& command, Oscar_Instance_Info& info)
{
  info.oscar_home = get_env_r("SZ_OSCAR_HOME");
  boost::smatch groups;
  if (!oscar::guarded_regex_match(command, groups, Service_Command)) {
    // It is another program's command line and may hold a login.
    ACE_ERROR((LM_ERROR, "Failed to get OSCAR instance info, command line mismatch: %s.\n",
               mask_oscar_cmd(command, false).c_str()));
    return false;
  }
  const std::string executable = groups[1].str();
  if (executable.front() == '/')
    info.oscar_home = directory_part(directory_part(executable));
  if (info.oscar_home.empty()) {
    ACE_ERROR((LM_ERROR, "SZ_OSCAR_HOME is empty, need to configure.\n"));
    return false;
  }
  info.instance = boost::to_upper_copy(without_quotes(groups[2].str()));
  return true;
}

bool probe_instance(Oscar_Instance_Info& info)
{
  unsigned short port = 0;
  if (!get_instance_port(info.oscar_home.c_str(), info.instance.c_str(), port)) {
    ACE_ERROR((LM_ERROR, "Failed to get OSCAR instance %s port\n", info.instance.c_str()));
    return false;
  }
  if (!get_isql_version(info.oscar_home.c_str(), info.version, false)) {
    ACE_ERROR((LM_ERROR, "Failed to get OSCAR instance %s version\n", info.instance.c_str()));
    return false;
  }
  return true;
}

std::vector<std::string> addresses_of(const Network_Interface_Enumerator& interfaces)
{
  std::vector<std::string> addresses;
  for (const kestrel::Network_Interface& interface : interfaces)
    addresses.push_back(ACE_Addr_String(interface.address, false).c_str());
  return addresses;
}
} // namespace

void oscar::add_instances(const std::vector<Service_Info>& services,
                          std::map<std::string, Oscar_Instance_Info>& inst_infos)
{
  for (const Service_Info& service : services) {
    Oscar_Instance_Info info;
    if (read_service(service.cmd, info) && probe_instance(info))
      inst_infos[info.instance] = info;
  }
}

bool oscar::find_local_node(const std::vector<std::string>& addresses,
                            const std::vector<Oscar_Node_Info>& nodes, const char* instance,
                            std::map<std::string, json_spirit::Value>& attrs)
{
  for (const std::string& address : addresses) {
    for (const Oscar_Node_Info& node : nodes) {
      if (node.status == "master")
        attrs["master_id"] = node.node_id;
      if (node.host == address) {
        attrs["instance"] = instance;
        attrs["node_id"] = node.node_id;
      }
      if (attrs.count("node_id") != 0 && attrs.count("master_id") != 0)
        return true;
    }
  }
  return false;
}

bool get_instance_info(std::map<std::string, Oscar_Instance_Info>& inst_infos, const char* locale)
{
  std::vector<Service_Info> services;
  Service_Lister lister;
  if (lister.list_service(Service_Filter, services, false, locale) != 0) {
    ACE_ERROR((LM_ERROR, "Failed to list service.\n"));
    return false;
  }
  oscar::add_instances(services, inst_infos);
  return true;
}

bool get_vip_from_conf(const char* oscar_home, const char* instance, std::string& vip)
{
  if (!OSCAR_TEXT_GIVEN(oscar_home) || !OSCAR_TEXT_GIVEN(instance))
    return false;
  const std::string path = oscar::instance_conf_file(oscar_home, instance);
  if (!is_regular_file(path.c_str())) {
    ACE_ERROR((LM_ERROR, "Instance config file %s does not exist.\n", path.c_str()));
    return false;
  }
  ACE_ifstream file(8192);
  std::string line;
  std::string found;
  if (file.open(path.c_str(), O_RDONLY | O_CLOEXEC) == 0) {
    while (file.getline(line) && find_vip(line, found)) {
    }
  }
  if (found.empty())
    return false;
  vip = found;
  return true;
}

bool find_vip(const std::string& line, std::string& res)
{
  static const boost::regex address_line(
      "\\s*HA_SERVER_IP_ADDRESS\\s*=\\s*'*(\\d+\\.\\d+\\.\\d+\\.\\d+)'*\\s*",
      boost::regex::perl | boost::regex::icase);
  boost::smatch groups;
  if (!oscar::guarded_regex_match(line, groups, address_line))
    return true;
  res = groups[1].str();
  ACE_DEBUG((LM_DEBUG, "Oscar config vip: %s\n", res.c_str()));
  return false;
}

bool get_cluster_nodes(const char* oscar_home, const char* instance, const char* username,
                       const char* password, const char* virtual_address, std::vector<Oscar_Node_Info>& nodes)
{
  unsigned short port = 0;
  if (!get_instance_port(oscar_home, instance, port)) {
    ACE_ERROR((LM_ERROR, "Failed to get OSCAR instance %s port.\n", instance));
    return false;
  }
  if (!oscar::null_or_empty(virtual_address) &&
      get_cluster_nodes_info(oscar_home, instance, username, password, port, virtual_address, nodes))
    return true;

  std::string conf_vip;
  if (!get_vip_from_conf(oscar_home, instance, conf_vip)) {
    ACE_ERROR((LM_ERROR, "Failed to get instance %s vip from configure.\n", instance));
    return false;
  }
  return get_cluster_nodes_info(oscar_home, instance, username, password, port, conf_vip.c_str(), nodes);
}

bool get_update_attrs(const char* oscar_home, const char* instance, const char* username,
                      const char* password, std::map<std::string, json_spirit::Value>& attrs)
{
  std::vector<Oscar_Node_Info> nodes;
  if (!get_cluster_nodes(oscar_home, instance, username, password, nullptr, nodes)) {
    ACE_ERROR((LM_ERROR, "Failed to get oscar(%s) nodes info.\n", instance));
    return false;
  }
  const std::unique_ptr<Network_Interface_Enumerator> interfaces(new (std::nothrow)
                                                                     Network_Interface_Enumerator);
  if (!interfaces) {
    errno = ENOMEM;
    return false;
  }
  if (!oscar::find_local_node(addresses_of(*interfaces), nodes, instance, attrs)) {
    ACE_ERROR((LM_ERROR, "Failed to get oscar(%s) update attrs.\n", instance));
    return false;
  }
  Instance_Manager* registry = Instance_Manager::instance();
  const std::shared_ptr<Instance> inst = registry ? registry->find("oscar", instance) : nullptr;
  if (inst)
    kestrel::ignore_result(update_instance(inst, attrs),
                           "the registry logs it and the attributes are found again");
  return true;
}

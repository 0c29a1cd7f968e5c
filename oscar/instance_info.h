#pragma once

#include "base/service_lister.h"
#include "oscar/oscar_catalog_queries.h"
#include "json/value.h"

#include <map>
#include <string>
#include <vector>

/// Finds the OSCAR instances that run on this host, and the cluster that an instance belongs to.
///
/// Threads:   no state; any thread. Tools are run on the calling thread.
/// Ownership: arguments are only read.
/// Errors:    false: failed and logged once; out-parameters as each function says.
/// Crash:     leaves no files.

/// One running instance.
struct Oscar_Instance_Info {
  std::string oscar_home;
  std::string instance; // upper case
  std::string version;
};

/// Adds the running instances to INST_INFOS, by upper-case name; a later service of the same name replaces an
/// earlier one. A service that cannot be read is skipped with a message; false only when no list of services
/// could be had. LOCALE is the one under which services are listed.
[[nodiscard]] bool get_instance_info(std::map<std::string, Oscar_Instance_Info>& inst_infos,
                                     const char* locale);

/// The virtual address of the instance's cluster from its configuration file. VIP is written on success only;
/// a file that names none is not logged.
[[nodiscard]] bool get_vip_from_conf(const char* oscar_home, const char* instance, std::string& vip);

/// Visitor of configuration lines: false ends the reading, because LINE holds the virtual address, now in
/// RES.
[[nodiscard]] bool find_vip(const std::string& line, std::string& res);

/// The nodes of the instance's cluster, asked at VIRTUAL_ADDRESS if given, else (or failing that) at the
/// address of the configuration file. Appends to NODES.
[[nodiscard]] bool get_cluster_nodes(const char* oscar_home, const char* instance, const char* username,
                                     const char* password, const char* virtual_address,
                                     std::vector<Oscar_Node_Info>& nodes);

/// Finds this host among the cluster's nodes and stores "instance", "node_id" and "master_id" in ATTRS and in
/// the options of the registered instance. A failure may leave some of the three in ATTRS.
[[nodiscard]] bool get_update_attrs(const char* oscar_home, const char* instance, const char* username,
                                    const char* password, std::map<std::string, json_spirit::Value>& attrs);

namespace oscar
{
/// The part of get_instance_info behind the list of services.
void add_instances(const std::vector<Service_Info>& services,
                   std::map<std::string, Oscar_Instance_Info>& inst_infos);

/// Looks for one of this host's ADDRESSES among NODES, and for the master; true once ATTRS holds both. NODES
/// are walked once for each address, so a later master is found too.
[[nodiscard]] bool find_local_node(const std::vector<std::string>& addresses,
                                   const std::vector<Oscar_Node_Info>& nodes, const char* instance,
                                   std::map<std::string, json_spirit::Value>& attrs);
} // namespace oscar

#include "lab/common/database.h"
#include "lab/common/server_control.h"
#include "lab/common/text.h"
#include "lab/kestrel_lab/commands.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstdio>

namespace oscar_lab
{

namespace
{

struct Node {
  std::string id;
  std::string address;
  std::string status;
};

bool is_address(const std::string& text)
{
  in_addr address;
  return ::inet_pton(AF_INET, text.c_str(), &address) == 1;
}

Node parse_node(const std::string& text)
{
  const auto first = text.find(':');
  const auto last = text.rfind(':');
  if (first == std::string::npos || first == last)
    throw Usage_Failure("a node is given as ID:ADDRESS:STATUS");
  const Node node{text.substr(0, first), text.substr(first + 1, last - first - 1), text.substr(last + 1)};
  std::uint64_t id = 0;
  if (!parse_number(node.id, INT32_MAX, id))
    throw Usage_Failure("the id of a node is a number");
  if (!is_address(node.address))
    throw Usage_Failure("the address of a node is an IPv4 address");
  const auto lower = [](char c) { return (c >= 'a' && c <= 'z') || c == '_'; };
  if (node.status.empty() || !std::all_of(node.status.begin(), node.status.end(), lower))
    throw Usage_Failure("the status of a node is a word in small letters");
  return node;
}

std::vector<Node> parse_nodes(const Arguments& arguments)
{
  arguments.required("--node");
  std::vector<Node> nodes;
  const std::vector<std::string> texts = arguments.values("--node");
  if (texts == std::vector<std::string>{"none"})
    return nodes;
  for (const std::string& text : texts)
    nodes.push_back(parse_node(text));
  return nodes;
}

/// True when the server must start again to listen on another address.
bool change_addresses(const Instance_Files& files, const Arguments& arguments)
{
  const Instance_Conf before = read_conf(files);
  Instance_Conf conf = before;
  conf.virtual_address = arguments.value("--virtual-address", before.virtual_address);
  conf.node_address = arguments.value("--address", before.node_address);
  for (const std::string& address : {conf.virtual_address, conf.node_address})
    if (!address.empty() && !is_address(address))
      throw Usage_Failure("an address is an IPv4 address");
  if (conf.virtual_address == before.virtual_address && conf.node_address == before.node_address)
    return false;
  write_cluster_addresses(files, conf);
  return true;
}

void store_nodes(const Instance_Files& files, const std::vector<Node>& nodes)
{
  Connection connection = connect_as_system(files);
  // Readers see the old nodes or the new ones.
  connection.query("begin");
  connection.query("delete from oscar_sys.ha_node");
  for (const Node& node : nodes)
    connection.query("insert into oscar_sys.ha_node values ($1::integer, $2, $3)",
                     {node.id, node.address, node.status});
  connection.query("commit");
}

} // namespace

int cluster_command(const Arguments& arguments)
{
  arguments.only({"--node", "--virtual-address", "--address"}, "with cluster");
  const Instance_Files files = instance_operands(arguments);
  files.require_existing();
  const std::vector<Node> nodes = parse_nodes(arguments);
  const bool listen_again = change_addresses(files, arguments);
  const bool was_running = running_server(files) != 0;
  if (was_running && listen_again)
    stop_server(files);
  start_server(files);
  store_nodes(files, nodes);
  if (!was_running)
    stop_server(files);
  std::printf("instance %s knows %zu nodes\n", files.name.c_str(), nodes.size());
  return 0;
}

} // namespace oscar_lab

#include "oscar/oscar_cluster_node_manager.h"

#include "base/clock.h"
#include "base/ignore_result.h"
#include "base/network_interface.h"
#include "base/secure_allocator.h"
#include "instances/instance_manager.h"
#include "oscar/instance_info.h"
#include "oscar/oscar_argument_check.h"
#include "oscar/utils.h"
#include "rpc/json_restful_client.h"
#include "json/json_util.h"

#include <ace/Guard_T.h>
#include <ace/Log_Msg.h>

#include <cerrno>
#include <exception>
#include <new>
#include <vector>

namespace oscar
{
namespace
{
typedef ACE_Unmanaged_Singleton<Oscar_Cluster_Node_Manager, ACE_Null_Mutex> Manager_Singleton;

/// The singleton's creation is not guarded: made here, while the module is loaded and no job runs yet.
struct Module_Lifetime {
  Module_Lifetime() { Oscar_Cluster_Node_Manager::instance(); }
  ~Module_Lifetime() { Oscar_Cluster_Node_Manager_fini(); }
};
Module_Lifetime module_lifetime;

/// Tools are started on the way, and what their start throws must end here: the callers are threads of jobs
/// and of services.
bool identify_local_node(const std::shared_ptr<Instance>& inst, const std::string& uid,
                         const std::string& virtual_address, Cluster_Node& node)
{
  try {
    return get_cluster_node_info(inst, uid, virtual_address, node);
  } catch (const std::exception& failure) {
    ACE_ERROR((LM_ERROR, "(%P|%t) Oscar_Cluster_Node_Manager::identify_local_node: %C\n", failure.what()));
    return false;
  }
}

bool manager_given(const Instance_Manager* instmgr)
{
  return OSCAR_POINTER_GIVEN(instmgr);
}

/// The first node at one of this host's addresses; the order of the addresses decides.
const Oscar_Node_Info* local_node(const Network_Interface_Enumerator& interfaces,
                                  const std::vector<Oscar_Node_Info>& nodes)
{
  for (const kestrel::Network_Interface& interface : interfaces) {
    const ACE_Addr_String address(interface.address, false);
    for (const Oscar_Node_Info& node : nodes)
      if (node.host == address.c_str())
        return &node;
  }
  return nullptr;
}
} // namespace

Oscar_Cluster_Node_Manager* Oscar_Cluster_Node_Manager::instance()
{
  return Manager_Singleton::instance();
}

void Oscar_Cluster_Node_Manager::close_instance()
{
  Manager_Singleton::close();
}

void Oscar_Cluster_Node_Manager_fini()
{
  Oscar_Cluster_Node_Manager::close_instance();
}

bool request_selection(const std::string& definition_uuid, const std::string& uid,
                       const std::string& instance_uuid, bool select_master, time_t& selection_time)
{
  json_spirit::Object members;
  members.emplace_back("definition_uuid", definition_uuid);
  members.emplace_back("uid", uid);
  members.emplace_back("instance_uuid", instance_uuid);
  members.emplace_back("select_master", select_master);
  const json_spirit::Value body(std::move(members));
  HTTP_Request request(HTTP_Request::JSON_POST, "/k2/r/oscar/cluster", true);
  json_spirit::Value reply;
  if (!Upstream_JSON_RESTful_Client::instance()->post(request, &body, &reply))
    return false;
  try {
    selection_time = static_cast<time_t>(kestrel::required<int64_t>(reply.get_obj(), "selection_time"));
  } catch (const std::exception& failure) {
    ACE_ERROR((LM_ERROR, "Failed to request node selection of job %s, error: %s\n", definition_uuid.c_str(),
               failure.what()));
    return false;
  }
  return true;
}

bool get_cluster_node_info(std::shared_ptr<Instance> inst, const std::string& uid,
                           const std::string& virtual_address, Cluster_Node& node)
{
  std::string username;
  secure_string password;
  if (Instance_Manager::instance()->get_account("oscar", inst->name, uid, username, password, nullptr) != 0)
    return false;
  std::string oscar_home;
  if (!get_from_instance_options(inst, "oscar_home", oscar_home)) {
    ACE_ERROR((LM_ERROR, "Failed to get oscar home.\n"));
    return false;
  }
  std::vector<Oscar_Node_Info> nodes;
  if (!get_cluster_nodes(oscar_home.c_str(), inst->name.c_str(), username.c_str(), password.c_str(),
                         virtual_address.c_str(), nodes)) {
    ACE_ERROR((LM_ERROR, "Failed to get oscar(%s) nodes info.\n", inst->name.c_str()));
    return false;
  }
  const std::unique_ptr<Network_Interface_Enumerator> interfaces(new (std::nothrow)
                                                                     Network_Interface_Enumerator);
  if (!interfaces) {
    errno = ENOMEM;
    return false;
  }
  const Oscar_Node_Info* local = local_node(*interfaces, nodes);
  if (!local)
    return false;
  std::string detail;
  node.node_id = local->node_id;
  node.is_master = local->status == "master";
  node.online = get_instance_state(oscar_home.c_str(), inst->name.c_str(), detail);
  return true;
}

bool Oscar_Cluster_Node_Manager::is_selected_node(const char* instance, const std::string& definition_uuid,
                                                  const std::string& uid, std::string& state,
                                                  bool select_master, bool backup)
{
  if (!OSCAR_TEXT_GIVEN(instance))
    return false;
  if (!select_master && !backup)
    return true;
  Instance_Manager* instmgr = Instance_Manager::instance();
  if (!manager_given(instmgr))
    return false;
  const std::shared_ptr<Instance> inst = instmgr->find("oscar", instance);
  if (!inst) {
    ACE_ERROR((LM_ERROR, "Failed to invoke is_selected_node, can't find instance.\n"));
    return false;
  }
  Cluster_Node node = {};
  if (!identify_local_node(inst, uid, std::string(), node)) {
    ACE_ERROR((LM_ERROR, "Failed to get node info of instance %s\n", instance));
    return false;
  }
  time_t selection_time = 0;
  if (!request_choice(definition_uuid, uid, inst->uuid, select_master, selection_time))
    return false;
  const Selection selection = await_choice(definition_uuid, selection_time);
  state = selection.state;
  if (state != "success")
    return false;
  if (selection.node_id == -1)
    ACE_DEBUG((LM_DEBUG, "Select node %d to backup.\n", selection.node_id));
  return node.node_id == selection.node_id;
}

bool Oscar_Cluster_Node_Manager::request_choice(const std::string& definition_uuid, const std::string& uid,
                                                const std::string& instance_uuid, bool select_master,
                                                time_t& selection_time)
{
  const ACE_Guard<ACE_Thread_Mutex> guard(mutex_);
  if (!guard.locked())
    return false;
  if (request_selection(definition_uuid, uid, instance_uuid, select_master, selection_time))
    return true;
  ACE_ERROR((LM_ERROR, "Failed to sent job node selection request\n"));
  return false;
}

/// Its state stays empty when nothing was announced.
Oscar_Cluster_Node_Manager::Selection
Oscar_Cluster_Node_Manager::await_choice(const std::string& definition_uuid, time_t selection_time)
{
  Selection selection = {};
  Exponential_Backoff_Range delays = exponential_backoff(1, 5, 60, true);
  for (Exponential_Backoff_Iterator delay = delays.first; delay != delays.second; ++delay) {
    if (get_selection(definition_uuid, selection) && selection.start_time == selection_time)
      break;
    if (!selection.state.empty()) // of another request: accepted all the same
      break;
    kestrel::clock().sleep_msec(static_cast<int64_t>(*delay) * 1000);
  }
  return selection;
}

bool Oscar_Cluster_Node_Manager::set_selection(const std::string& definition_uuid,
                                               const std::string& instance, int node_id,
                                               const std::string& host_uuid, const std::string& state,
                                               const time_t& time)
{
  const ACE_Guard<ACE_Thread_Mutex> guard(mutex_);
  if (!guard.locked())
    return false;
  jobs_[definition_uuid] = Selection{instance, node_id, host_uuid, state, time};
  return true;
}

bool Oscar_Cluster_Node_Manager::get_selection(const std::string& definition_uuid, Selection& selection)
{
  const ACE_Guard<ACE_Thread_Mutex> guard(mutex_);
  if (!guard.locked())
    return false;
  const Job_Map::iterator found = jobs_.find(definition_uuid);
  if (found == jobs_.end() || found->second.state.empty())
    return false;
  selection = found->second;
  jobs_.erase(found);
  return true;
}

bool Oscar_Cluster_Node_Manager::check_state(const std::string& instance, const std::string& uid,
                                             const std::string& virtual_address, json_spirit::Object& result)
{
  Instance_Manager* instmgr = Instance_Manager::instance();
  if (!manager_given(instmgr))
    return false;
  const std::shared_ptr<Instance> inst = instmgr->find("oscar", instance);
  if (!inst) {
    ACE_ERROR((LM_ERROR, "Failed to invoke check_state, can't find instance.\n"));
    return false;
  }
  Cluster_Node node = {};
  if (!identify_local_node(inst, uid, virtual_address, node)) {
    ACE_ERROR((LM_ERROR, "Failed to get node info of instance %s\n", instance.c_str()));
    return false;
  }
  result.emplace_back("instance", node.instance);
  result.emplace_back("node_id", node.node_id);
  result.emplace_back("is_master", node.is_master);
  result.emplace_back("online", node.online);
  return true;
}
} // namespace oscar

Exponential_Backoff_Range exponential_backoff(unsigned slot_time, unsigned max_retries, unsigned capped,
                                              bool jitter)
{
  return exponential_backoff(Exponential_Backoff_Iterator(slot_time, max_retries, capped, jitter));
}

Exponential_Backoff_Range exponential_backoff(Exponential_Backoff_Iterator i)
{
  return Exponential_Backoff_Range(i, Exponential_Backoff_Iterator());
}

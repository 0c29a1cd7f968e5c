#include "oscar/websvcs/oscar_node_handler.h"

#include "oscar/oscar_cluster_node_manager.h"
#include "oscar/websvcs/node_request.h"
#include "oscar/websvcs/rpc_answer.h"
#include "json/json_util.h"

#include <ace/Log_Msg.h>

#include <exception>

int JSON_RPC_Oscar_Node_Handler::handle_object(ACE_Weak_Bound_Ptr<JSON_RPC_Channel, ACE_Thread_Mutex> channel,
                                               JSON_RPC_Object_Ptr object)
{
  return oscar::handle_node_request(channel, object, &check_node_state);
}

int check_node_state(JSON_RPC_Channel* channel, const JSON_RPC_Request* request)
{
  std::string instance, uid, virtual_address;
  try {
    const json_spirit::Object& params = request->params().get_obj();
    instance = kestrel::required<std::string>(params, "instance");
    uid = kestrel::required<std::string>(params, "uid");
    virtual_address = kestrel::required<std::string>(params, "virtual_address");
  } catch (const std::exception& failure) {
    ACE_ERROR((LM_ERROR, "Failed to check node state, %s\n", failure.what()));
    return oscar::refuse(*channel, *request, oscar::INVALID_PARAMS, "Invalid params\n");
  }
  json_spirit::Object state;
  if (!oscar::Oscar_Cluster_Node_Manager::instance()->check_state(instance, uid, virtual_address, state)) {
    ACE_ERROR((LM_ERROR, "Failed to get node %s state\n", instance.c_str()));
    return oscar::refuse(*channel, *request, oscar::INTERNAL_ERROR, "Failed to check node state\n");
  }
  std::unique_ptr<JSON_RPC_Response> response = oscar::make_response(*request);
  if (!response)
    return oscar::refuse(*channel, *request, oscar::INTERNAL_ERROR, "Internal error, out of memory.");
  response->result() = std::move(state);
  return oscar::answer(*channel, std::move(response));
}

#include "oscar/websvcs/oscar_notify_node_handler.h"

#include "oscar/oscar_cluster_node_manager.h"
#include "oscar/websvcs/node_request.h"
#include "oscar/websvcs/rpc_answer.h"
#include "json/json_util.h"

#include <ace/Log_Msg.h>

#include <exception>

int JSON_RPC_Oscar_Notify_Node_Handler::handle_object(
    ACE_Weak_Bound_Ptr<JSON_RPC_Channel, ACE_Thread_Mutex> channel, JSON_RPC_Object_Ptr object)
{
  return oscar::handle_node_request(channel, object, &notify_selected_node);
}

int notify_selected_node(JSON_RPC_Channel* channel, const JSON_RPC_Request* request)
{
  std::string definition_uuid, instance, host_uuid, state;
  int node_id = -1;
  time_t selection_time = 0;
  try {
    const json_spirit::Object& params = request->params().get_obj();
    definition_uuid = kestrel::required<std::string>(params, "definition_uuid");
    instance = kestrel::required<std::string>(params, "instance");
    host_uuid = kestrel::required<std::string>(params, "host_uuid");
    state = kestrel::required<std::string>(params, "state");
    node_id = kestrel::required<int>(params, "node_id");
    selection_time = static_cast<time_t>(kestrel::required<int64_t>(params, "selection_time"));
  } catch (const std::exception& failure) {
    ACE_ERROR((LM_ERROR, "Failed to get selected node, %s\n", failure.what()));
    return oscar::refuse(*channel, *request, oscar::INVALID_PARAMS, "Invalid params\n");
  }
  if (!oscar::Oscar_Cluster_Node_Manager::instance()->set_selection(definition_uuid, instance, node_id,
                                                                    host_uuid, state, selection_time)) {
    ACE_ERROR((LM_ERROR, "Failed to set node selection of job %s\n", definition_uuid.c_str()));
    return oscar::refuse(*channel, *request, oscar::INTERNAL_ERROR, "Failed to notify node selection\n");
  }
  std::unique_ptr<JSON_RPC_Response> response = oscar::make_response(*request);
  if (!response)
    return -1; // the announcement is stored, which is what counts
  response->result() = true;
  return oscar::answer(*channel, std::move(response));
}

#include "oscar/websvcs/node_request.h"

#include "oscar/websvcs/rpc_answer.h"

#include <ace/Log_Msg.h>

int oscar::handle_node_request(const ACE_Weak_Bound_Ptr<JSON_RPC_Channel, ACE_Thread_Mutex>& channel,
                               const JSON_RPC_Object_Ptr& object, Node_Service service)
{
  const JSON_RPC_Request* request = object.get() ? object->request() : nullptr;
  if (!request) {
    ACE_ERROR((LM_EMERGENCY, "Unexpected error in %N:%l, obj is not JSON-RPC request!\n"));
    return -1;
  }
  const ACE_Strong_Bound_Ptr<JSON_RPC_Channel, ACE_Thread_Mutex> requester(channel);
  if (!requester.get()) {
    ACE_ERROR((LM_ERROR, "Abort handling JSON-RPC request, requester has gone.\n"));
    return -1;
  }
  if (request->params().type() != json_spirit::obj_type)
    return refuse(*requester, *request, INVALID_PARAMS, "Invalid params");
  return service(requester.get(), request);
}

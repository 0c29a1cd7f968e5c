#pragma once

#include "rpc/json_rpc.h"

/// Takes the backup server's announcement of the node that runs a job. Params, all required:
/// "definition_uuid", "instance", "host_uuid" and "state" (texts), "node_id" and "selection_time" (integers).
///
/// Threads: no state; any number of requests at once. Waits while a job thread asks the server for a choice.
/// Errors:  -32602 for the params, -32603 for everything else; see JSON_RPC_Handler for the result. Nothing is
///          sent when there is no memory for the answer.
class JSON_RPC_Oscar_Notify_Node_Handler : public JSON_RPC_Handler
{
public:
  int handle_object(ACE_Weak_Bound_Ptr<JSON_RPC_Channel, ACE_Thread_Mutex> channel,
                    ACE_Refcounted_Auto_Ptr<JSON_RPC_Object, ACE_Recursive_Thread_Mutex> object) override;
};

/// Stores the announcement and answers true. The request's params are an object.
int notify_selected_node(JSON_RPC_Channel* channel, const JSON_RPC_Request* request);
